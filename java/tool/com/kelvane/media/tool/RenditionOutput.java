package com.kelvane.media.tool;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.List;

/** The files of one rendition in the workspace and what was counted on the way. */
final class RenditionOutput implements Closeable {
    private final Rendition rendition;
    private final FileChannel stream;
    private final boolean processed;
    private final MatroskaWriter timed;
    private final MatroskaWriter compared;
    private int pictures;
    private int skipped;
    private long bytes;
    private long nanoseconds;

    /** @param processed whether a module worked on it: it may change its size in mid-stream and move times */
    RenditionOutput(Rendition rendition, double frameRate, boolean processed, Workspace workspace)
            throws IOException {
        this.rendition = rendition;
        this.processed = processed;
        stream = FileChannel.open(workspace.path(streamName()), StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE);
        timed = new MatroskaWriter(workspace.path(timedName()), rendition.width(), rendition.height(), frameRate, processed);
        compared = !processed ? timed : new MatroskaWriter(workspace.path(comparedName()), rendition.width(),
                rendition.height(), frameRate, true);
    }

    /** @param sourceTime time of the same picture in the source; the same unless a module moved it */
    void write(ByteBuffer accessUnit, long time, long sourceTime) throws IOException {
        byte[] copy = new byte[accessUnit.remaining()];
        accessUnit.duplicate().get(copy);
        timed.write(copy, time);
        if (processed) {
            compared.write(copy, sourceTime);
        }
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

    /** Copies the timed files into MP4, in one run. */
    static void makeContainers(List<RenditionOutput> outputs, Workspace workspace) throws IOException {
        List<String> command = new ArrayList<>(List.of("-v", "error"));
        for (RenditionOutput output : outputs) {
            command.addAll(List.of("-f", "matroska", "-i", output.timedName()));
        }
        for (int i = 0; i < outputs.size(); i++) {
            command.addAll(List.of("-map", Integer.toString(i), "-c", "copy", "-movflags", "+faststart",
                    outputs.get(i).containerName()));
        }
        var error = new MediaProgram.FirstError(workspace.folder());
        if (MediaProgram.FFMPEG.run(workspace.folder(), command, line -> { }, error) != 0) {
            throw new Failure("the MP4 files could not be written: %s", error);
        }
    }

    @Override
    public void close() throws IOException {
        stream.close();
        timed.close();
        compared.close();
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

    /** Name of the access units with the times of the source. */
    String comparedName() {
        return rendition.size() + (processed ? ".source.mkv" : ".mkv");
    }

    int pictures() {
        return pictures;
    }

    int skipped() {
        return skipped;
    }

    long bytes() {
        return bytes;
    }

    double kilobitsPerSecond(double seconds) {
        return bytes * 8 / seconds / 1000;
    }

    double millisecondsPerPicture() {
        return nanoseconds / 1e6 / (pictures + skipped);
    }
}
