package com.kelvane.media.test;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.NativeLog;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.transform.codec.AVCDecoder;
import java.io.ByteArrayOutputStream;
import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.function.Consumer;
import java.util.function.IntConsumer;

/** What a server does to the library: "ending", "shortage", "lines", "peaks" and "soak", see each method. */
public final class Life {
    private static List<byte[]> units;

    public static void main(String[] arguments) throws Exception {
        units = AccessUnit.split(Files.readAllBytes(Path.of(arguments[1])));
        int[] numbers = Arrays.stream(arguments).skip(2).mapToInt(Integer::parseInt).toArray();
        switch (arguments[0]) {
            case "ending" -> ending(numbers[0], numbers[1]);
            case "shortage" -> shortage();
            case "lines" -> {
                NativeLog.toStandardStreams();
                lines(numbers[0]);
            }
            case "peaks" -> peaks(numbers[0], numbers[1]);
            default -> soak(numbers[0], numbers[1]);
        }
    }

    private static void tell(String format, Object... arguments) {
        System.err.printf(format + "%n", arguments);
    }

    private static Transcoder threeRungs() {
        return Transcoder.builder().rendition(Rendition.of(160, 128).bitrate(300_000))
                .rendition(Rendition.of(96, 80).bitrate(150_000))
                .rendition(Rendition.of(64, 48).bitrate(80_000)).open();
    }

    private static byte[] transcode(Transcoder transcoder, int pictures) {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        Consumer<EncodedPicture> receiver = picture -> bytes.writeBytes(picture.copy());
        for (int i = 0; i < pictures; i++) {
            transcoder.write(units.get(i % units.size()), i, receiver);
        }
        transcoder.drain(receiver);
        return bytes.toByteArray();
    }

    /** Ends while four threads encode: after so many milliseconds by this signal, or by System.exit when it is 0. */
    private static void ending(int milliseconds, int signal) throws InterruptedException, IOException {
        CountDownLatch busy = new CountDownLatch(4);
        for (int i = 0; i < 4; i++) {
            new Thread(() -> {
                while (true) {
                    try (Transcoder transcoder = threeRungs()) {
                        transcode(transcoder, 5);
                        busy.countDown();
                        transcode(transcoder, 1000);
                    }
                }
            }).start();
        }
        busy.await();
        Thread.sleep(milliseconds);
        if (signal == 0) {
            System.exit(7);
        }
        new ProcessBuilder("kill", "-" + signal, Long.toString(ProcessHandle.current().pid())).start();
    }

    /** No Java memory for the second rendition's first picture; the others' pictures need little. */
    private static void shortage() {
        List<Integer> delivered = new ArrayList<>();
        byte[][] ballast = new byte[8192][];
        try (Transcoder transcoder = Transcoder.builder().rendition(Rendition.of(64, 48).bitrate(80_000))
                .rendition(Rendition.of(1920, 1080).bitrate(50_000_000).quantisers(1, 10))
                .rendition(Rendition.of(96, 80).bitrate(150_000)).open()) {
            transcoder.pause(1);
            for (int i = 0; i < 5; i++) {
                transcoder.write(units.get(i), i, picture -> delivered.add(picture.index()));
            }
            transcoder.resume(1);
            int filled = 0;
            try {
                while (true) {
                    ballast[filled++] = new byte[1 << 14];
                }
            } catch (OutOfMemoryError full) {
                Arrays.fill(ballast, filled - 4, filled, null);
            }
            transcoder.write(units.get(5), 5, picture -> delivered.add(picture.index()));
        } catch (OutOfMemoryError missing) {
            ballast = null;
            tell("delivered %s, then an error", delivered.subList(10, delivered.size()));
        }
    }

    /** So many lines of diagnostics, which bad input provokes. */
    private static void lines(int count) {
        byte[] bad = {1, 2, 3, 4};
        byte[] info = new byte[6];
        VideoDecoder.open().close(); // loads the library
        long decoder = AVCDecoder.open();
        long begin = System.nanoTime();
        for (int i = 0; i < count; i++) {
            check(AVCDecoder.decode(bad, info, info, decoder) == -1, "-1");
        }
        tell("%d lines in %.2f s", count, (System.nanoTime() - begin) / 1e9);
        AVCDecoder.close(decoder);
    }

    /** So many transcoders at once and then none, so many times. */
    private static void peaks(int rounds, int count) throws IOException {
        threeRungs().close(); // finds the libraries
        double before = residentMegabytes();
        for (int round = 0; round < rounds; round++) {
            List<Transcoder> transcoders = new ArrayList<>();
            for (int i = 0; i < count; i++) {
                transcoders.add(threeRungs());
                transcode(transcoders.get(i), 3);
            }
            double peak = residentMegabytes();
            transcoders.forEach(Transcoder::close);
            double after = residentMegabytes();
            tell("%d transcoders: %.0f MB at the peak, %.0f MB after it", count, peak, after);
            check(after - before < (peak - before) / 4, "memory is given back");
        }
    }

    /** So many pictures through one transcoder, then so many lives of every engine. */
    private static void soak(int pictures, int lives) throws IOException {
        byte[] first;
        byte[] last;
        try (Transcoder transcoder = threeRungs()) {
            first = transcode(transcoder, units.size());
        }
        try (Transcoder transcoder = threeRungs()) {
            watched("pictures", pictures,
                    i -> transcoder.write(units.get(i % units.size()), i, picture -> picture.data()));
        }
        List<EngineKind> kinds = EngineKind.all(units.get(0));
        watched("lives of every engine", lives, i -> kinds.forEach(Life::live));
        try (Transcoder transcoder = threeRungs()) {
            last = transcode(transcoder, units.size());
        }
        check(Arrays.equals(first, last), "the last stream's bytes are the first's");
        tell("the last stream's %d bytes are the first's", last.length);
    }

    private static void live(EngineKind kind) {
        try (AutoCloseable engine = kind.open().get()) {
            kind.call().accept(engine);
        } catch (Exception wrong) {
            throw new IllegalStateException(kind.name(), wrong);
        }
    }

    // What resident memory grows by over the second half, from the averages of its quarters; and the descriptors.
    private static void watched(String what, int count, IntConsumer action) throws IOException {
        int samples = 60;
        double[] resident = new double[samples];
        int descriptors = 0;
        long begin = System.nanoTime();
        for (int sample = 0; sample < samples; sample++) {
            for (int i = (int) ((long) count * sample / samples); i < (long) count * (sample + 1) / samples; i++) {
                action.accept(i);
            }
            resident[sample] = residentMegabytes();
            if (sample == samples / 2) {
                descriptors = descriptors();
            }
        }
        double[] later = Arrays.copyOfRange(resident, samples / 2, samples);
        int quarter = later.length / 2;
        double growth = 2 * (Arrays.stream(later).skip(quarter).average().orElseThrow()
                - Arrays.stream(later).limit(quarter).average().orElseThrow());
        tell("%d %s in %.1f s: %.0f MB resident, %+.2f MB over the second half; %d descriptors, %d in the middle",
                count, what, (System.nanoTime() - begin) / 1e9, resident[samples - 1], growth, descriptors(), descriptors);
        // In a short run the virtual machine itself is still growing.
        check(growth <= (count < 10_000 ? 4 : 1), "memory grows: " + Arrays.toString(resident));
        check(descriptors() == descriptors, "descriptors stay");
    }

    private static double residentMegabytes() throws IOException {
        System.gc();
        long pages = Long.parseLong(Files.readString(Path.of("/proc/self/statm")).split(" ")[1]);
        return pages * 4096 / 1048576.0;
    }

    private static int descriptors() {
        String[] open = new File("/proc/self/fd").list();
        return open == null ? -1 : open.length;
    }

    private static void check(boolean holds, String what) {
        if (!holds) {
            throw new IllegalStateException(what);
        }
    }
}
