package com.kelvane.media.tool;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.StandardOpenOption;

/** The files of one rendition in the workspace and what was counted on the way. */
final class RenditionOutput implements Closeable {
    private final Rendition rendition;
    private final FileChannel stream;
    private final MatroskaWriter timed;
    private int pictures;
    private int skipped;
    private long bytes;
    private long nanoseconds;

    RenditionOutput(Rendition rendition, double frameRate, Workspace workspace) throws IOException {
        this.rendition = rendition;
        stream = FileChannel.open(workspace.path(streamName()), StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE);
        timed = new MatroskaWriter(workspace.path(timedName()), rendition.width(), rendition.height(), frameRate, false);
    }

    void write(ByteBuffer accessUnit, long time) throws IOException {
        byte[] copy = new byte[accessUnit.remaining()];
        accessUnit.duplicate().get(copy);
        timed.write(copy, time);
        while (accessUnit.hasRemaining()) {
            stream.write(accessUnit);
        }
        pictures++;
        bytes += copy.length;
    }

    /** Notes a picture that was decoded but did not come out of the encoder. */
    void skip() {
        skipped++;
    }

    void addTime(long spent) {
        nanoseconds += spent;
    }

    @Override
    public void close() throws IOException {
        stream.close();
        timed.close();
    }

    Rendition rendition() {
        return rendition;
    }

    /** Name of the access units as the encoder made them. */
    String streamName() {
        return rendition.size() + ".h264";
    }

    /** Name of the finished, playable file. */
    String containerName() {
        return rendition.size() + ".mp4";
    }

    /** Name of the access units with their times. */
    String timedName() {
        return rendition.size() + ".mkv";
    }

    int pictures() {
        return pictures;
    }

    int skipped() {
        return skipped;
    }

    double kilobitsPerSecond(double seconds) {
        return bytes * 8 / seconds / 1000;
    }

    double millisecondsPerPicture() {
        return nanoseconds / 1e6 / (pictures + skipped);
    }
}
