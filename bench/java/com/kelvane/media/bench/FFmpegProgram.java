package com.kelvane.media.bench;

import com.kelvane.media.AccessUnit;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.function.IntFunction;

/** The same ladder by FFmpeg's own program: one decoding, the same scaler, libopenh264 at the library's parameters, one thread. */
final class FFmpegProgram {
    private static final int SLICE = 60; // milliseconds: the program knows of no turns, so that it is stopped by time

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
    void check(int pictures) throws IOException {
        List<Path> outputs = new ArrayList<>();
        for (int i = 0; i < ladder.rungs().size(); i++) {
            outputs.add(folder.resolve("ffmpeg-" + i + ".h264"));
        }
        floor.run("run 0 " + command(0, i -> outputs.get(i).toString()), new Turns(0));
        for (Path output : outputs) {
            int encoded = AccessUnit.split(Files.readAllBytes(output)).size();
            Files.delete(output);
            if (encoded != pictures) {
                throw new IllegalStateException("FFmpeg's program encodes " + encoded + " pictures of " + pictures);
            }
        }
    }

    /** Without what the program takes to start, which a stream of one picture shows. */
    Contest.Pass pass() {
        return (checked, turns) -> {
            Spent start = floor.run("run 0 " + command(1, i -> "/dev/null"), turns);
            Spent whole = floor.run("run " + SLICE + " " + command(0, i -> "/dev/null"), turns);
            return new Spent(whole.cpu() - start.cpu(), whole.wall() - start.wall(), 0, 0, 0);
        };
    }

    private String command(int pictures, IntFunction<String> output) {
        StringBuilder command = new StringBuilder(System.getProperty("bench.ffmpeg"))
                .append(" -v error -nostdin -y -filter_threads 1 -filter_complex_threads 1 -threads 1 -f h264 -framerate ")
                .append(ladder.frameRate()).append(" -i ").append(stream).append(" -filter_complex [0:v]split=")
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
            if (pictures > 0) {
                command.append(" -frames:v ").append(pictures);
            }
            command.append(" -f h264 ").append(output.apply(i));
        }
        return command.toString();
    }
}
