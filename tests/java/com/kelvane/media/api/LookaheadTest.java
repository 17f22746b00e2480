package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.TreeMap;
import java.util.concurrent.Executor;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.RejectedExecutionException;
import java.util.function.Consumer;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;

/** Decoding that runs ahead of the encoders. */
final class LookaheadTest {
    private static final List<Rendition> LADDER = List.of(Rendition.of(64, 48).bitrate(100_000),
            Rendition.of(96, 80).bitrate(200_000).keyInterval(10), Rendition.ofSourceSize().bitrate(400_000).frameRate(25));

    /** All that one can see of a run but the calls that pictures come out in: nothing else may depend on that. */
    private record Seen(List<String> calls, List<String> planned, List<Vectors.Encoded> pictures, List<String> thrown) {
    }

    private static Seen run(Transcoder.Builder settings, List<byte[]> units) {
        Seen seen = new Seen(new ArrayList<>(), new ArrayList<>(), new ArrayList<>(), new ArrayList<>());
        Thread calling = Thread.currentThread();
        Consumer<EncodedPicture> receiver = picture -> {
            assertSame(calling, Thread.currentThread());
            seen.pictures.add(Vectors.Encoded.of(picture));
            if (picture.time() % 400 == 0 && picture.index() == 1) {
                throw new IllegalStateException("at " + picture.time());
            }
        };
        try (Transcoder transcoder = settings.renditions(LADDER).plan(picture -> {
            seen.planned.add(picture.time() + " " + picture.width() + picture.isSourceKey());
            picture.select(0, picture.time() % 80 == 0);
        }).open()) {
            for (int i = 0; i < 2 * (units.size() + 1); i++) {
                switch (i) {
                    case 5 -> transcoder.requestKey(1);
                    case 7 -> transcoder.bitrate(2, 150_000);
                    case 9 -> transcoder.remove(0);
                    case 12 -> transcoder.add(Rendition.of(48, 32).bitrate(60_000));
                    default -> transcoder.statistics();
                }
                int unit = i % (units.size() + 1);
                int time = i;
                try {
                    seen.calls.add(unit == units.size() ? "drained " + transcoder.drain(receiver)
                            : transcoder.write(units.get(unit), 40L * time, receiver).name());
                } catch (RuntimeException told) {
                    seen.calls.add("");
                    seen.thrown.add(told.getMessage());
                    for (Throwable also : told.getSuppressed()) {
                        seen.thrown.add(also.getMessage());
                    }
                }
                seen.calls.add(String.valueOf(transcoder.needsKey()));
            }
            seen.calls.add(transcoder.statistics().renditions().stream().map(figures -> figures.pictures() + " "
                    + figures.skipped() + " " + figures.failed() + " " + figures.bytes()).toList().toString());
        }
        return seen;
    }

    private static Map<String, List<byte[]>> streams() {
        Map<String, List<byte[]>> streams = new TreeMap<>();
        for (String name : List.of(Vectors.PLAIN, Vectors.REORDERED, Vectors.CHANGING, "fields.h264", "odd.h264", "yuv422.h264",
                "tiny.h264")) {
            List<byte[]> units = Vectors.units(name);
            streams.put(name, units);
            Random random = new Random(23);
            streams.put(name + ", damaged", units.stream().map(unit -> {
                byte[] damaged = unit.clone();
                if (random.nextInt(4) == 0) {
                    damaged[4 + random.nextInt(damaged.length - 4)] ^= 1 << random.nextInt(8);
                }
                return damaged;
            }).toList());
        }
        // Slices that come late, and differ, write into a picture that is out already.
        List<byte[]> late = new ArrayList<>();
        byte[] before = null;
        for (byte[] unit : Vectors.units("slices.h264")) {
            late.add(unit);
            if (before != null) {
                late.add(lastNal(before));
            }
            late.add(lastNal(unit));
            before = unit;
        }
        streams.put("late slices", late);
        return streams;
    }

    private static byte[] lastNal(byte[] unit) {
        int at = unit.length - 4;
        while (at > 0 && (unit[at] != 0 || unit[at + 1] != 0 || unit[at + 2] != 1)) {
            at--;
        }
        byte[] nal = new byte[unit.length - at + 1];
        System.arraycopy(unit, at, nal, 1, unit.length - at);
        nal[nal.length / 2] ^= 16;
        return nal;
    }

    @Test
    void changesNothingButTheCallsThatPicturesComeOutIn() {
        ExecutorService pool = Executors.newFixedThreadPool(3);
        List<Runnable> never = new ArrayList<>();
        Executor refusing = task -> {
            throw new RejectedExecutionException();
        };
        Executor[] executors = {Runnable::run, pool, never::add, refusing};
        streams().forEach((name, units) -> {
            Seen expected = run(Transcoder.builder(), units);
            IntStream.of(1, 3, 64).forEach(lookahead -> {
                for (Executor executor : lookahead == 3 ? executors : new Executor[] {pool}) {
                    Seen seen = run(Transcoder.builder().parallel(executor).lookahead(lookahead), units);
                    String which = name + " " + lookahead + " " + executor;
                    assertEquals(expected.pictures, seen.pictures, which);
                    assertEquals(expected.planned, seen.planned, which);
                    assertEquals(expected.thrown, seen.thrown, which);
                    for (int i = 0; i < expected.calls.size(); i++) { // one that threw told nothing of its access unit
                        String call = expected.calls.get(i);
                        assertEquals(call.isEmpty() || seen.calls.get(i).isEmpty() ? "" : seen.calls.get(i),
                                call.isEmpty() || seen.calls.get(i).isEmpty() ? "" : call, which + ", call " + i);
                    }
                }
            });
        });
        pool.shutdown();
        never.forEach(Runnable::run); // long after the transcoders are gone
    }

    /** A stream ends between calls and during them, with pictures under way; what an executor throws is told by the call. */
    @Test
    void closesWithPicturesUnderWay() throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(3);
        List<byte[]> units = Vectors.units(Vectors.REORDERED);
        for (int round = 0; round < 40; round++) {
            Transcoder transcoder = Transcoder.builder().renditions(LADDER).parallel(pool).lookahead(8).open();
            Thread writer = new Thread(() -> {
                try {
                    for (int i = 0; ; i++) {
                        transcoder.write(units.get(i % units.size()), 40L * i, picture -> { });
                    }
                } catch (IllegalStateException closed) {
                    return;
                }
            });
            writer.start();
            Thread.sleep(round % 10);
            transcoder.close();
            writer.join();
            assertThrows(IllegalStateException.class, () -> transcoder.drain(picture -> { }));
        }
        pool.shutdown();
        Error thrown = new OutOfMemoryError("unable to create native thread");
        int[] seen = new int[2];
        try (Transcoder transcoder = Transcoder.builder().renditions(LADDER).parallel(task -> {
            throw thrown;
        }).lookahead(4).open()) {
            for (int i = 0; i <= units.size(); i++) {
                try {
                    if (i == units.size()) {
                        transcoder.drain(picture -> seen[0]++);
                    } else {
                        transcoder.write(units.get(i), 40L * i, picture -> seen[0]++);
                    }
                } catch (OutOfMemoryError told) {
                    assertSame(thrown, told);
                    seen[1]++;
                }
            }
        }
        assertEquals(List.of(30 * LADDER.size(), 30 - 2 + 1), List.of(seen[0], seen[1]));
    }
}
