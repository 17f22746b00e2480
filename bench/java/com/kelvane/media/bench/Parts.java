package com.kelvane.media.bench;

import com.kelvane.media.VideoDecoder;
import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.List;
import java.util.function.Consumer;

/** What it takes to hand bytes over, by where they are: units of filler, which a decoder leaves alone once it has them. */
final class Parts {
    private static final int BYTES_A_ROUND = 400_000_000;
    private static final int WARM_UP_ROUNDS = 2;
    private static final int FILLER = 12;

    private Parts() {
    }

    static void measure(Table table, int rounds) {
        for (int size : new int[] {1_000, 33_000, 1_000_000}) {
            byte[] exact = new byte[size];
            Arrays.fill(exact, (byte) 0xff);
            System.arraycopy(new byte[] {0, 0, 0, 1, FILLER}, 0, exact, 0, 5);
            byte[] larger = new byte[size + 64];
            System.arraycopy(exact, 0, larger, 64, size);
            ByteBuffer heap = ByteBuffer.wrap(larger);
            ByteBuffer direct = ByteBuffer.allocateDirect(larger.length).put(larger);
            List<String> names = List.of("byte[]", "part of one", "heap buffer", "direct buffer");
            List<Consumer<VideoDecoder>> calls = List.of(decoder -> decoder.decode(exact, 0),
                    decoder -> decoder.decode(larger, 64, size, 0), decoder -> decoder.decode(heap.position(64), 0),
                    decoder -> decoder.decode(direct.position(64), 0));
            double[][] taken = new double[calls.size()][rounds];
            try (VideoDecoder decoder = VideoDecoder.open()) {
                for (int round = -WARM_UP_ROUNDS; round < rounds; round++) {
                    for (int kind = 0; kind < calls.size(); kind++) {
                        long begin = System.nanoTime();
                        for (int i = 0; i < BYTES_A_ROUND / size; i++) {
                            calls.get(kind).accept(decoder);
                        }
                        if (round >= 0) {
                            taken[kind][round] = (double) (System.nanoTime() - begin) / (BYTES_A_ROUND / size);
                        }
                    }
                }
            }
            for (int kind = 0; kind < calls.size(); kind++) {
                table.put(size + " bytes", names.get(kind) + ", ns", Contest.Result.of(taken[kind]).median(), 0);
            }
        }
    }
}
