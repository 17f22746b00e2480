package com.kelvane.media.bench;

import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.transform.codec.MPADecoder;

/** What the API's check of each call costs: the same native call, which has nothing to decode, with and without it. */
final class Guard {
    private static final int CALLS = 2_000_000;
    private static final int WARM_UP_ROUNDS = 2;

    private Guard() {
    }

    static void measure(Table table, int rounds) {
        double[] bare = new double[rounds];
        double[] guarded = new double[rounds];
        double[] difference = new double[rounds];
        byte[] nothing = new byte[0];
        byte[] info = new byte[5];
        byte[] pcm = new byte[4608];
        long handle = MPADecoder.open();
        try (Mp3Decoder decoder = Mp3Decoder.open()) {
            for (int round = -WARM_UP_ROUNDS; round < rounds; round++) {
                long begin = System.nanoTime();
                for (int i = 0; i < CALLS; i++) {
                    MPADecoder.decode(nothing, info, pcm, handle);
                }
                long middle = System.nanoTime();
                for (int i = 0; i < CALLS; i++) {
                    decoder.decode(nothing);
                }
                long end = System.nanoTime();
                if (round >= 0) {
                    bare[round] = (double) (middle - begin) / CALLS;
                    guarded[round] = (double) (end - middle) / CALLS;
                    difference[round] = guarded[round] - bare[round];
                }
            }
        }
        MPADecoder.close(handle);
        String row = "a call with nothing to decode";
        table.put(row, "natives, ns", Contest.Result.of(bare).median(), 1).put(row, "API, ns", Contest.Result.of(guarded).median(), 1)
                .put(row, "guard, ns", Contest.Result.of(difference).median(), 1);
    }
}
