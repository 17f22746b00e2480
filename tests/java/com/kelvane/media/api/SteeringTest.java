package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Picture;
import com.kelvane.media.Pipeline;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoEncoder;
import com.kelvane.media.test.Uncompressed;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.function.Consumer;
import java.util.function.IntConsumer;
import java.util.function.IntFunction;
import java.util.function.Predicate;
import java.util.stream.IntStream;
import java.util.stream.LongStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** What other threads ask of an engine at work: it comes with the next picture, and costs none. */
final class SteeringTest {
    private static final int WIDTH = 176;
    private static final int HEIGHT = 144;
    private static final int CYCLE = 40; // pictures, after which the motion begins anew
    private static final List<byte[]> MOVING = IntStream.range(0, CYCLE)
            .mapToObj(i -> Uncompressed.accessUnit(moving(i, 40L * i))).toList();

    /** A texture with grain that swings to and fro: no rate of these tests is too high or too low for it. */
    private static Picture moving(int number, long time) {
        Picture texture = Uncompressed.noise(2 * WIDTH, 2 * HEIGHT, 1, false);
        Picture grain = Uncompressed.noise(WIDTH, HEIGHT, number, false);
        byte[] samples = new byte[Picture.size(WIDTH, HEIGHT)];
        int left = (int) (3 + 2.5 * Math.sin(2 * Math.PI * number / CYCLE));
        for (int y = 0; y < HEIGHT; y++) {
            for (int x = 0; x < WIDTH; x++) {
                int noise = (texture.i420()[y / 4 * 2 * WIDTH + (x + left) / 4] >> 2) + (grain.i420()[y * WIDTH + x] >> 5);
                samples[y * WIDTH + x] = (byte) (128 + noise + 20 * Math.sin((x + left) / 11.0) * Math.cos(y / 7.0));
            }
        }
        java.util.Arrays.fill(samples, WIDTH * HEIGHT, samples.length, (byte) 128);
        return new Picture(WIDTH, HEIGHT, time, samples);
    }

    /** A source at work: the time of its next picture follows from its rate. */
    private record Scenario(String name, Rendition rendition, double[] rates, int[] bitrates, long pause) {
        @Override
        public String toString() {
            return name;
        }
    }

    private static Stream<Scenario> scenarios() {
        Rendition plain = Rendition.of(WIDTH, HEIGHT).bitrate(300_000);
        double[] steady = {30, 30, 30};
        int[] same = {0, 0, 0};
        int[] steered = {0, 150_000, 500_000};
        return Stream.of(
                new Scenario("steered", plain.frameRate(30), steady, steered, 0),
                new Scenario("steered, CABAC, 25", plain.frameRate(25).entropyCoding(Rendition.EntropyCoding.CABAC),
                        new double[] {25, 25, 25}, steered, 0),
                new Scenario("by the clock", plain, new double[] {60, 15, 29.97}, same, 0),
                new Scenario("slow", plain.bitrate(60_000), new double[] {10, 6, 12}, same, 0),
                new Scenario("behind a pause, and steered", plain, new double[] {25, 25, 50}, steered, 7000));
    }

    /** Each part takes six seconds; two of them are for the encoder to follow. */
    @ParameterizedTest
    @MethodSource("scenarios")
    void bitsFollowWithinTwoSeconds(Scenario scenario) {
        long part = 6000;
        long[] bits = new long[3];
        int[] written = new int[1];
        int[] got = new int[1];
        try (Transcoder transcoder = Transcoder.builder().rendition(scenario.rendition).open()) {
            double clock = 0;
            for (int at = 0; at < 3; at++) {
                long begin = Math.round(clock);
                int now = at;
                if (scenario.bitrates[at] > 0) {
                    transcoder.bitrate(0, scenario.bitrates[at]);
                }
                while (clock < begin + part) {
                    transcoder.write(MOVING.get(written[0]++ % CYCLE), Math.round(clock), picture -> {
                        bits[now] += picture.time() - begin >= 2000 ? 8 * picture.size() : 0;
                        got[0]++;
                    });
                    clock += 1000 / scenario.rates[at];
                }
                clock += scenario.pause;
            }
        }
        assertEquals(written[0], got[0]);
        int target = scenario.rendition.bitrate();
        for (int at = 0; at < 3; at++) {
            target = scenario.bitrates[at] > 0 ? scenario.bitrates[at] : target;
            assertEquals(1, bits[at] * 1000.0 / (part - 2000) / target, 0.1, scenario + ", part " + at);
        }
    }

    /** One rendition's picture. */
    private record Sent(long time, boolean key, boolean askedFor, int bitrate, ByteBuffer bytes) {
        static Sent of(EncodedPicture picture) {
            assertEquals(picture.isKey(), picture.type() == EncodedPicture.Type.IDR);
            return new Sent(picture.time(), picture.isKey(), picture.isAskedFor(), picture.rendition().bitrate(),
                    ByteBuffer.wrap(picture.copy()));
        }
    }

    private static List<List<Sent>> transcode(Transcoder.Builder builder, IntFunction<Consumer<Transcoder>> before) {
        List<List<Sent>> sent = List.of(new ArrayList<>(), new ArrayList<>(), new ArrayList<>());
        try (Transcoder transcoder = builder.rendition(Rendition.of(96, 80).bitrate(200_000).frameRate(25))
                .rendition(Rendition.ofSourceSize().bitrate(400_000).frameRate(25)).open()) {
            for (int i = 0; i < CYCLE; i++) {
                before.apply(i).accept(transcoder);
                transcoder.write(MOVING.get(i), 40L * i, picture -> sent.get(picture.index()).add(Sent.of(picture)));
            }
        }
        return sent;
    }

    private static List<Long> times(List<Sent> sent, Predicate<Sent> which) {
        return sent.stream().filter(which).map(picture -> picture.time / 40).toList();
    }

    @Test
    void eachChangeComesWithTheNextPictureOfItsRenditionAlone() {
        List<List<Sent>> still = transcode(Transcoder.builder(), i -> transcoder -> { });
        assertEquals(List.of(0L), times(still.get(0), Sent::key));
        for (Transcoder.Builder builder : List.of(Transcoder.builder(), Transcoder.builder().parallel(Runnable::run))) {
            int[] added = new int[2];
            List<List<Sent>> sent = transcode(builder, i -> transcoder -> {
                switch (i) {
                    case 10 -> transcoder.bitrate(0, 90_000);
                    case 15 -> transcoder.requestKey(0);
                    case 20 -> added[0] = transcoder.add(Rendition.of(64, 48).bitrate(50_000).frameRate(25));
                    case 25 -> transcoder.pause(0);
                    case 30 -> {
                        transcoder.resume(0);
                        transcoder.remove(2);
                        assertEquals(90_000, transcoder.renditions().get(0).bitrate());
                    }
                    case 35 -> added[1] = transcoder.add(Rendition.ofSourceSize().bitrate(60_000));
                    default -> transcoder.statistics();
                }
            });
            assertEquals(still.get(1), sent.get(1));
            assertEquals(still.get(0).subList(0, 10), sent.get(0).subList(0, 10));
            assertNotEquals(still.get(0).get(10).bytes, sent.get(0).get(10).bytes);
            assertEquals(range(10, 25, 30, 40), times(sent.get(0), picture -> picture.bitrate == 90_000));
            assertEquals(List.of(0L, 15L, 30L), times(sent.get(0), Sent::key));
            assertEquals(List.of(15L, 30L), times(sent.get(0), Sent::askedFor));
            assertEquals(List.of(2, 2), List.of(added[0], added[1]));
            assertEquals(range(20, 30, 35, 40), times(sent.get(2), picture -> true));
            assertEquals(List.of(20L, 35L), times(sent.get(2), Sent::key));
            for (int index = 0; index < 2; index++) {
                List<byte[]> units = sent.get(index).stream().map(picture -> picture.bytes.array()).toList();
                assertEquals(units.size(), Vectors.decode(units).size());
            }
        }
    }

    /** Runs of picture numbers. */
    private static List<Long> range(int... bounds) {
        return IntStream.range(0, bounds.length / 2).boxed()
                .flatMap(i -> LongStream.range(bounds[2 * i], bounds[2 * i + 1]).boxed()).toList();
    }

    /** Feedback from several threads and from a callback, as fast as they can, while pictures go through. */
    @Test
    void anyThreadMaySteer() throws Exception {
        ExecutorService threads = Executors.newFixedThreadPool(4);
        AtomicBoolean over = new AtomicBoolean();
        int[] got = new int[2];
        boolean[] askedFor = new boolean[1];
        try (Transcoder transcoder = Transcoder.builder().rendition(Rendition.of(96, 80).bitrate(200_000))
                .rendition(Rendition.of(64, 48).bitrate(200_000)).parallel(Runnable::run).open()) {
            List<Future<?>> steering = IntStream.range(0, 4).<Future<?>>mapToObj(number -> threads.submit(() -> {
                for (int i = 0; !over.get(); i++) {
                    transcoder.bitrate(i % 2, 1000 + i % 1000 * 1000);
                    transcoder.frameRate(i % 2, i % 61);
                    transcoder.requestKey(number % 2);
                    transcoder.pause(1);
                    transcoder.resume(1);
                    transcoder.renditions();
                    transcoder.statistics();
                    Thread.sleep(1);
                }
                return null;
            })).toList();
            for (int i = 0; i < 20 * CYCLE; i++) {
                transcoder.write(MOVING.get(i % CYCLE), 40L * i, picture -> {
                    got[picture.index()]++;
                    askedFor[0] |= picture.isAskedFor();
                    transcoder.requestKey(picture.index());
                });
            }
            over.set(true);
            threads.shutdown();
            for (Future<?> done : steering) {
                done.get();
            }
        }
        assertEquals(20 * CYCLE, got[0]);
        assertTrue(got[1] > 0 && askedFor[0], got[1] + " pictures");
    }

    private record Encoding(IntFunction<Optional<AccessUnit>> encode, Runnable requestKey, IntConsumer bitrate, AutoCloseable engine) {
    }

    private static Stream<Encoding> encoders() {
        VideoEncoder encoder = VideoEncoder.builder().size(WIDTH, HEIGHT).frameRate(30).bitrate(1_500_000).open();
        Pipeline pipeline = Pipeline.builder().frameRate(30).bitrate(1_500_000).open();
        return Stream.of(new Encoding(i -> encoder.encode(moving(i, 40 * i)), encoder::requestKey, encoder::bitrate, encoder),
                new Encoding(i -> pipeline.write(MOVING.get(i), 40 * i), pipeline::requestKey, pipeline::bitrate, pipeline));
    }

    /** FFmpeg's encoder: key pictures on demand, and another bit rate in another encoder. */
    @ParameterizedTest
    @MethodSource("encoders")
    void encodersOfOneStreamTakeKeysAndBitRates(Encoding encoder) throws Exception {
        List<Integer> keys = new ArrayList<>();
        List<byte[]> units = new ArrayList<>();
        int[] bytes = new int[2];
        try (AutoCloseable engine = encoder.engine) {
            for (int i = 0; i < 36; i++) {
                switch (i) {
                    case 5 -> encoder.requestKey.run();
                    case 20, 30 -> encoder.bitrate.accept(256_000); // which it then has
                    default -> { }
                }
                AccessUnit unit = encoder.encode.apply(i).orElseThrow();
                assertEquals(40L * i, unit.time());
                if (unit.isKey()) {
                    keys.add(i);
                }
                units.add(unit.bytes());
                bytes[i < 20 ? 0 : 1] += unit.isKey() ? 0 : unit.bytes().length;
            }
        }
        assertEquals(List.of(0, 5, 20), keys);
        assertTrue(bytes[1] / 15 < 0.8 * bytes[0] / 18, bytes[0] + ", then " + bytes[1]);
        assertEquals(36, Vectors.decode(units).size());
    }
}
