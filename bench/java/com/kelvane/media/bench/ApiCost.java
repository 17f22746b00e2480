package com.kelvane.media.bench;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.transform.codec.MPADecoder;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.zip.CRC32;

/**
 * What the typed API costs and what it saves: the guard around each call, and a picture's renditions on several cores.
 * Arguments: STREAM.h264 ROUNDS
 */
public final class ApiCost {
    private static final int CALLS = 2_000_000;
    private static final int[][] LADDER = {{1920, 1080, 4_500_000}, {1280, 720, 2_500_000}, {854, 480, 1_200_000},
        {640, 360, 800_000}, {426, 240, 400_000}};

    private ApiCost() {
    }

    public static void main(String[] arguments) throws IOException {
        int rounds = Integer.parseInt(arguments[1]);
        measureGuard(rounds);
        measureParallel(AccessUnit.split(Files.readAllBytes(Path.of(arguments[0]))), rounds);
    }

    /** The same native call, which has nothing to decode, with and without the API around it, in turns. */
    private static void measureGuard(int rounds) {
        double[] guarded = new double[rounds];
        double[] bare = new double[rounds];
        byte[] nothing = new byte[0];
        byte[] info = new byte[5];
        byte[] output = new byte[4608];
        long handle = MPADecoder.open();
        try (Mp3Decoder decoder = Mp3Decoder.open()) {
            for (int round = -2; round < rounds; round++) { // two to warm up
                long begin = System.nanoTime();
                for (int i = 0; i < CALLS; i++) {
                    MPADecoder.decode(nothing, info, output, handle);
                }
                long middle = System.nanoTime();
                for (int i = 0; i < CALLS; i++) {
                    decoder.decode(nothing);
                }
                if (round >= 0) {
                    bare[round] = (double) (middle - begin) / CALLS;
                    guarded[round] = (double) (System.nanoTime() - middle) / CALLS;
                }
            }
        }
        MPADecoder.close(handle);
        System.err.printf("one call: %.1f ns bare, %.1f ns through the API: %.1f ns for the guard%n", median(bare),
                median(guarded), median(guarded) - median(bare));
    }

    private static void measureParallel(List<byte[]> units, int rounds) {
        int cores = Runtime.getRuntime().availableProcessors();
        ExecutorService threads = Executors.newFixedThreadPool(cores - 1 > 0 ? cores - 1 : 1);
        List<Double> sequential = new ArrayList<>();
        List<Double> parallel = new ArrayList<>();
        for (int round = 0; round < rounds; round++) {
            long expected = transcode(ladder(), units, sequential);
            if (transcode(ladder().parallel(threads), units, parallel) != expected) {
                throw new AssertionError("parallel encoding gives other bytes");
            }
        }
        threads.shutdown();
        double one = median(sequential.stream().mapToDouble(Double::doubleValue).toArray());
        double several = median(parallel.stream().mapToDouble(Double::doubleValue).toArray());
        System.err.printf("one picture into %d renditions, median of %d: %.2f ms on one core, %.2f ms on %d: %.2f; same bytes%n",
                LADDER.length, sequential.size(), one, several, cores, several / one);
    }

    private static Transcoder.Builder ladder() {
        Transcoder.Builder ladder = Transcoder.builder();
        for (int[] rung : LADDER) {
            ladder.rendition(Rendition.of(rung[0], rung[1]).bitrate(rung[2]).frameRate(30).keyInterval(60));
        }
        return ladder;
    }

    /** Returns a checksum of all that came out; notes the milliseconds of each write that gave pictures. */
    private static long transcode(Transcoder.Builder settings, List<byte[]> units, List<Double> times) {
        CRC32 sum = new CRC32();
        try (Transcoder transcoder = settings.open()) {
            long time = 0;
            for (byte[] unit : units) {
                long begin = System.nanoTime();
                boolean decoded = transcoder.write(unit, time, picture -> sum.update(picture.data()));
                if (decoded) {
                    times.add((System.nanoTime() - begin) / 1e6);
                }
                time += 33;
            }
            transcoder.drain(picture -> sum.update(picture.data()));
        }
        return sum.getValue();
    }

    private static double median(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        return sorted[sorted.length / 2];
    }
}
