package com.kelvane.media.tool.output;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.List;

/** The files of one rendition in the workspace. */
public final class RenditionOutput implements Closeable {
    private final int width;
    private final int height;
    private final FileChannel stream;
    private final boolean processed;
    private final MatroskaWriter timed;
    private final MatroskaWriter compared;
    private long bytes;

    /** @param processed whether a module worked on it: it may change its size in mid-stream and move times */
    public RenditionOutput(int width, int height, double frameRate, boolean processed, Workspace workspace)
            throws IOException {
        this.width = width;
        this.height = height;
        this.processed = processed;
        stream = FileChannel.open(workspace.path(streamName()), StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE);
        timed = new MatroskaWriter(workspace.path(timedName()), width, height, frameRate, processed);
        compared = !processed ? timed
                : new MatroskaWriter(workspace.path(comparedName()), width, height, frameRate, true);
    }

    /**
     * Adds a picture.
     *
     * @param time when it is shown, in milliseconds
     * @param sourceTime when the same picture of the source is shown; not another time unless a module moved it
     */
    public void write(byte[] accessUnit, long time, long sourceTime) throws IOException {
        timed.write(accessUnit, time);
        if (processed) {
            compared.write(accessUnit, sourceTime);
        }
        ByteBuffer data = ByteBuffer.wrap(accessUnit);
        while (data.hasRemaining()) {
            stream.write(data);
        }
        bytes += accessUnit.length;
    }

    /** Copies the timed files into MP4, in one run. */
    public static void makeContainers(List<RenditionOutput> outputs, Workspace workspace) throws IOException {
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

    int width() {
        return width;
    }

    int height() {
        return height;
    }

    /** Width and height, as users write them. */
    public String size() {
        return width + "x" + height;
    }

    /** Name of the access units as the encoder made them. */
    public String streamName() {
        return size() + ".h264";
    }

    /** Name of the finished, playable file. */
    public String containerName() {
        return size() + ".mp4";
    }

    private String timedName() {
        return size() + ".mkv";
    }

    /** Name of the access units with the times of the source. */
    String comparedName() {
        return size() + (processed ? ".source.mkv" : ".mkv");
    }

    /** Kilobits per second over so many seconds. */
    public double kilobitsPerSecond(double seconds) {
        return bytes * 8 / seconds / 1000;
    }
}
