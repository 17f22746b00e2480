package com.kelvane.media.tool.output;

import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import java.io.BufferedOutputStream;
import java.io.Closeable;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;

/** Writes the files of all renditions, the sound beside the pictures: one FFmpeg makes all containers while they come. */
public final class Results implements Closeable {
    private static final int BUFFER = 1 << 16; // bytes

    private final List<OutputStream> streams = new ArrayList<>();
    private final MatroskaWriter timed;
    private final MatroskaWriter compared;
    private final AacSource sound;
    private final int soundTrack;
    private final MediaProgram.Running program;
    private final MediaProgram.FirstError error;
    private AacSource.Unit nextSound;
    private boolean finished;

    /**
     * @param products what is made
     * @param meaning how the pictures are to be shown
     * @param sound null when there is none
     */
    public Results(List<RenditionOutput> outputs, Products products, PictureMeaning meaning, AacSource sound,
                   Workspace workspace) throws IOException {
        this.sound = sound;
        nextSound = sound == null ? null : sound.next();
        List<String> command = new ArrayList<>(List.of("-v", "error", "-copyts", "-f", "matroska", "-i", "pipe:0"));
        for (int i = 0; i < outputs.size(); i++) {
            RenditionOutput output = outputs.get(i);
            Optional<String> filter = meaning.streamFilter(output.width(), output.height());
            List<String> copied = new ArrayList<>(List.of("-map", "0:v:" + i, "-c", "copy"));
            filter.ifPresent(written -> copied.addAll(List.of("-bsf:v", written)));
            copied.addAll(meaning.containerOptions());
            if (products.writesMp4()) {
                command.addAll(copied);
                command.addAll(List.of("-map", "0:a?", "-movflags", "+faststart", output.containerName()));
            }
            if (products.hls()) {
                workspace.makeFolder(output.size());
                command.addAll(copied);
                if (products.part()) {
                    command.addAll(Hls.PART);
                }
                command.addAll(Hls.options(output.size(), products.segmentSeconds()));
            }
            if (products.raw() && filter.isPresent()) {
                command.addAll(List.of("-map", "0:v:" + i, "-c", "copy", "-bsf:v", "h264_mp4toannexb," + filter.get(), "-f",
                        "h264", output.streamName()));
            }
        }
        if (products.hls() && nextSound != null) {
            workspace.makeFolder(Hls.SOUND);
            command.addAll(List.of("-map", "0:a", "-c", "copy"));
            command.addAll(Hls.options(Hls.SOUND, products.segmentSeconds()));
        }
        error = new MediaProgram.FirstError(workspace.folder());
        program = MediaProgram.FFMPEG.start(workspace.folder(), command, true, error);
        timed = new MatroskaWriter(new BufferedOutputStream(program.input(), BUFFER));
        MatroskaWriter bySource = null;
        for (RenditionOutput output : outputs) {
            timed.addVideo(output.width(), output.height(), output.frameRate(), output.processed());
            boolean written = products.raw() && meaning.streamFilter(output.width(), output.height()).isEmpty();
            streams.add(written ? open(output.streamName(), workspace) : OutputStream.nullOutputStream());
            if (output.processed()) {
                bySource = new MatroskaWriter(open(output.sourceTimedName(), workspace));
                bySource.addVideo(output.width(), output.height(), output.frameRate(), true);
            }
        }
        compared = bySource;
        soundTrack = nextSound == null ? 0 : timed.addSound(sound.configuration(), sound.sampleRate(), sound.channels(),
                Math.round(Math.max(0, -nextSound.time())));
    }

    private static OutputStream open(String name, Workspace workspace) throws IOException {
        return new BufferedOutputStream(Files.newOutputStream(workspace.path(name)), BUFFER);
    }

    /**
     * Adds a picture.
     *
     * @param rendition its position
     * @param time when it is shown, in milliseconds
     * @param sourceTime when the same picture of the source is shown; not another time unless a module moved it
     */
    public void write(int rendition, byte[] accessUnit, long time, long sourceTime) throws IOException {
        streams.get(rendition).write(accessUnit);
        if (compared != null) {
            compared.writePicture(1, accessUnit, sourceTime);
        }
        try {
            writeSound(time);
            timed.writePicture(rendition + 1, accessUnit, time);
        } catch (IOException broken) {
            throw broken(broken);
        }
    }

    private void writeSound(long until) throws IOException {
        for (; nextSound != null && nextSound.time() <= until; nextSound = sound.next()) {
            timed.writeSound(soundTrack, nextSound.bytes(), Math.round(nextSound.time()));
        }
    }

    /** Whether there is any sound. */
    public boolean hasSound() {
        return soundTrack > 0;
    }

    /** Writes what is left of the sound and waits until the files are complete. */
    public void finish() throws IOException {
        finished = true;
        try {
            writeSound(Long.MAX_VALUE);
            timed.close();
        } catch (IOException broken) {
            throw broken(broken);
        }
        for (OutputStream stream : streams) {
            stream.close();
        }
        if (compared != null) {
            compared.close();
        }
        if (program.finish() != 0) {
            throw new Failure("the results could not be written: %s", error);
        }
    }

    // When FFmpeg has ended, its own message tells more than that of the pipe.
    private IOException broken(IOException problem) throws IOException {
        program.close();
        program.finish();
        if (!error.isEmpty()) {
            throw new Failure("the results could not be written: %s", error);
        }
        return problem;
    }

    @Override
    public void close() throws IOException {
        program.close();
        if (!finished) {
            for (OutputStream stream : streams) {
                stream.close();
            }
        }
    }
}
