package com.kelvane.media.bench;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.transform.codec.MIRVProcessor;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;

/**
 * The transcoder as a media server drives it, through the typed API and through the native methods alone, beside a bare loop
 * in a process of its own, in turns: the CPU time of the calling thread and the process's memory, round by round. Arguments:
 * STREAM.h264 ROUNDS, then the bare loop's command, which ends STREAM.h264 LIBRARY 1 WIDTHxHEIGHT@BITRATE...
 */
public final class TranscodeLoop {
    private static final int FRAME_RATE = 30;
    private static final int KEY_INTERVAL = 60;

    private long bytes;
    private int pictures;

    public static void main(String[] arguments) throws IOException {
        List<byte[]> units = AccessUnit.split(Files.readAllBytes(Path.of(arguments[0])));
        int rounds = Integer.parseInt(arguments[1]);
        List<String> bare = List.of(arguments).subList(2, arguments.length);
        String[] renditions = Arrays.copyOfRange(arguments, 6, arguments.length);
        double[][] seconds = new double[3][rounds];
        for (int round = -1; round < rounds; round++) { // one to warm up
            double[] spent = {runBare(bare), run(loop -> loop.throughNatives(units, renditions), "natives"),
                run(loop -> loop.throughApi(units, renditions), "api")};
            for (int way = 0; way < spent.length && round >= 0; way++) {
                seconds[way][round] = spent[way];
            }
        }
        System.err.printf("medians of %d rounds: bare %.3f s, natives %.3f s, api %.3f s of CPU%n", rounds,
                median(seconds[0]), median(seconds[1]), median(seconds[2]));
        System.err.printf("medians of the rounds' ratios: natives to bare %+.2f %%, api to natives %+.2f %%%n",
                excess(seconds[1], seconds[0]), excess(seconds[2], seconds[1]));
    }

    private interface Way {
        void run(TranscodeLoop loop);
    }

    /** Returns the seconds of this thread's CPU that it took. */
    private static double run(Way way, String name) throws IOException {
        TranscodeLoop loop = new TranscodeLoop();
        long before = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
        way.run(loop);
        double seconds = (ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime() - before) / 1e9;
        System.err.printf("%s: %d access units, %d bytes, %.3f s of CPU, %d MB resident%n", name, loop.pictures, loop.bytes,
                seconds, residentMegabytes());
        return seconds;
    }

    private static double runBare(List<String> command) throws IOException {
        Process process = new ProcessBuilder(command).redirectError(ProcessBuilder.Redirect.DISCARD).start();
        String line = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8).strip();
        System.err.println(line);
        return Double.parseDouble(line.replaceAll(".* ([0-9.]+) s of CPU.*", "$1"));
    }

    private static double excess(double[] seconds, double[] than) {
        double[] ratios = new double[seconds.length];
        Arrays.setAll(ratios, i -> seconds[i] / than[i]);
        return 100 * (median(ratios) - 1);
    }

    private static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        return sorted[sorted.length / 2];
    }

    private void throughApi(List<byte[]> units, String[] renditions) {
        Transcoder.Builder builder = Transcoder.builder();
        for (String rendition : renditions) {
            String[] numbers = rendition.split("[x@]");
            builder.rendition(Rendition.of(Integer.parseInt(numbers[0]), Integer.parseInt(numbers[1]))
                    .bitrate(Integer.parseInt(numbers[2])).frameRate(FRAME_RATE).keyInterval(KEY_INTERVAL));
        }
        try (Transcoder transcoder = builder.open()) {
            long time = 0;
            for (byte[] unit : units) {
                transcoder.write(unit, 33 * time++, this::count);
            }
            transcoder.drain(this::count);
        }
    }

    private void count(EncodedPicture picture) {
        pictures++;
        bytes += picture.data().remaining();
    }

    private void throughNatives(List<byte[]> units, String[] renditions) {
        long handle = MIRVProcessor.open(renditions.length);
        for (int id = 1; id <= renditions.length; id++) {
            String[] numbers = renditions[id - 1].split("[x@]");
            MIRVProcessor.apply(id, "videoWidth", numbers[0], handle);
            MIRVProcessor.apply(id, "videoHeight", numbers[1], handle);
            MIRVProcessor.apply(id, "videoBR", numbers[2], handle);
            MIRVProcessor.apply(id, "videoFPS", Integer.toString(FRAME_RATE), handle);
            MIRVProcessor.apply(id, "videoKey", Integer.toString(KEY_INTERVAL), handle);
        }
        MIRVProcessor.start(handle);
        long time = 0;
        for (byte[] unit : units) {
            MIRVProcessor.write(this, 33 * time++, unit, handle);
        }
        MIRVProcessor.close(handle);
    }

    /** Called by the library. */
    public void receiveVideo(int index, int timestamp, ByteBuffer data) {
        if (data != null) {
            pictures++;
            bytes += data.remaining();
        }
    }

    private static long residentMegabytes() throws IOException {
        String pages = Files.readString(Path.of("/proc/self/statm")).split(" ")[1];
        return Long.parseLong(pages) * 4096 / 1_000_000;
    }
}
