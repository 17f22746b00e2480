package com.kelvane.media.bench;

import com.kelvane.media.AccessUnit;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.function.IntFunction;

/** The same ladder by FFmpeg's own program: one decoding, the same scaler, libopenh264 at the library's parameters, one thread. */
final class FFmpegProgram {
    private static final int SLICE = 60; // milliseconds: the program knows of no turns, so that it is stopped by time
    private static final int FIRST = 10; // pictures

    private final Path folder;
    private final Floor floor;
    private final Path stream;
    private final Ladder ladder;

    FFmpegProgram(Path folder, Floor floor, String source, Ladder ladder) {
        this.folder = folder;
        this.floor = floor;
        this.stream = folder.resolve(source + ".h264");
        this.ladder = ladder;
    }

    /** Ends the benchmark when the program does not encode every picture into every rendition. */
    void check(int laps, int pictures) throws IOException {
        List<Path> outputs = new ArrayList<>();
        for (int i = 0; i < ladder.rungs().size(); i++) {
            outputs.add(folder.resolve("ffmpeg-" + i + ".h264"));
        }
        floor.run("run 0 " + command(over(laps), i -> outputs.get(i).toString()), Turns.none());
        for (Path output : outputs) {
            int encoded = AccessUnit.split(Files.readAllBytes(output)).size();
            Files.delete(output);
            if (encoded != laps * pictures) {
                throw new IllegalStateException("FFmpeg's program encodes " + encoded + " pictures of " + laps * pictures);
            }
        }
    }

    /**
     * As many laps as the others in one process. What it takes to start comes off: the time of a process for the stream's
     * first pictures, which has touched all of the memory, and which counts as so many pictures less.
     */
    Contest.Pass pass(int pictures) {
        return (checked, turns) -> {
            Spent start = floor.run("run " + SLICE + " " + command(beginning(), i -> "/dev/null"), turns);
            Spent whole = floor.run("run " + SLICE + " " + command(over(turns.laps), i -> "/dev/null"), turns);
            double share = (double) pictures / (turns.laps * pictures - FIRST);
            turns.lap((long) (share * (whole.cpu() - start.cpu())), (long) (share * (whole.wall() - start.wall())));
            return whole;
        };
    }

    private Path beginning() throws IOException {
        Path beginning = folder.resolve(stream.getFileName() + ".first");
        try (OutputStream out = Files.newOutputStream(beginning)) {
            for (byte[] unit : AccessUnit.split(Files.readAllBytes(stream)).subList(0, FIRST)) {
                out.write(unit);
            }
        }
        return beginning;
    }

    /** {@return a file with the stream so many times} */
    private Path over(int laps) throws IOException {
        Path repeated = folder.resolve(stream.getFileName() + ".x" + laps);
        try (OutputStream out = Files.newOutputStream(repeated)) {
            for (int i = 0; i < laps; i++) {
                Files.copy(stream, out);
            }
        }
        return repeated;
    }

    private String command(Path input, IntFunction<String> output) {
        StringBuilder command = new StringBuilder(System.getProperty("bench.ffmpeg"))
                .append(" -v error -nostdin -y -filter_threads 1 -filter_complex_threads 1 -threads 1 -f h264 -framerate ")
                .append(ladder.frameRate()).append(" -i ").append(input).append(" -filter_complex [0:v]split=")
                .append(ladder.rungs().size());
        for (int i = 0; i < ladder.rungs().size(); i++) {
            command.append("[s").append(i).append(']');
        }
        for (int i = 0; i < ladder.rungs().size(); i++) {
            Ladder.Rung rung = ladder.rungs().get(i);
            command.append(";[s").append(i).append("]scale=").append(rung.width()).append(':').append(rung.height())
                    .append(":flags=bicubic[r").append(i).append(']');
        }
        for (int i = 0; i < ladder.rungs().size(); i++) {
            command.append(" -map [r").append(i).append("] -c:v libopenh264 -threads 1 -rc_mode bitrate -loopfilter 0 -allow_skip_frames 0")
                    .append(" -slices 1 -b:v ").append(ladder.rungs().get(i).bitrate()).append(" -maxrate ")
                    .append(ladder.rungs().get(i).bitrate()).append(" -g ").append(2 * ladder.frameRate());
            command.append(" -f h264 ").append(output.apply(i));
        }
        return command.toString();
    }
}
