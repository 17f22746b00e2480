package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncoderFailure;
import com.kelvane.media.Picture;
import com.kelvane.media.Pipeline;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoEncoder;
import com.kelvane.media.test.Uncompressed;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.function.BiConsumer;
import java.util.function.Consumer;
import java.util.stream.LongStream;
import java.util.stream.Stream;
import jdk.jfr.consumer.RecordedEvent;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Noise that OpenH264 fails at, between pictures that it encodes. */
final class EncoderFailureTest {
    private static final int BEFORE = 8;
    private static final int AFTER = 8;

    /** An engine at work: takes picture by picture, and gives access units to a receiver. */
    private record Engine(BiConsumer<Picture, Consumer<AccessUnit>> write, AutoCloseable opened) {
    }

    private interface Opener {
        Engine open(int width, int height, Consumer<EncoderFailure> listener);
    }

    private record Kind(String name, boolean survivesAtOnce, Opener opener) {
    }

    private static Kind transcoder(String name, boolean survivesAtOnce, Rendition rendition, boolean parallel) {
        return new Kind(name, survivesAtOnce, (width, height, listener) -> {
            // The second rendition is small enough for its encoder to see little of the noise.
            Transcoder.Builder builder = Transcoder.builder().rendition(rendition)
                    .rendition(Rendition.of(16, 16).bitrate(100_000)).onFailure(listener);
            Transcoder transcoder = (parallel ? builder.parallel(Runnable::run) : builder).open();
            return new Engine((picture, receiver) -> assertTrue(
                    transcoder.write(Uncompressed.accessUnit(picture), picture.time(), out -> {
                        if (out.index() == 0) {
                            receiver.accept(new AccessUnit(out.copy(), out.time()));
                        }
                    }).isPicture()), transcoder);
        });
    }

    private static final Kind VIDEO_ENCODER = new Kind("VideoEncoder", true, (width, height, listener) -> {
        VideoEncoder encoder = VideoEncoder.builder().size(width, height).bitrate(2_000_000).onFailure(listener).open();
        return new Engine((picture, receiver) -> encoder.encode(picture).ifPresent(receiver), encoder);
    });

    private static final Kind PIPELINE = new Kind("Pipeline", true, (width, height, listener) -> {
        Pipeline pipeline = Pipeline.builder().onFailure(listener).open();
        return new Engine((picture, receiver) -> pipeline.write(Uncompressed.accessUnit(picture), picture.time())
                .ifPresent(receiver), pipeline);
    });

    /** Pictures of which an engine says that they failed, and that it skipped them. */
    private static List<Long> lost(AutoCloseable engine) {
        if (engine instanceof Pipeline pipeline) {
            return List.of(pipeline.statistics().failed(), pipeline.statistics().skipped());
        }
        Transcoder.RenditionStatistics figures = ((Transcoder) engine).statistics().renditions().get(0);
        return List.of(figures.failed(), figures.skipped());
    }

    private record Case(Kind kind, int width, int height, int noisy, boolean twoValued) {
    }

    private static Stream<Case> cases() {
        Rendition quality = Rendition.ofSourceSize().bitrate(800_000).rateControl(Rendition.RateControl.QUALITY);
        List<Kind> kinds = List.of(
                transcoder("by rate", true, Rendition.of(640, 360).bitrate(800_000).frameRate(30), false),
                transcoder("of a high rate", false, Rendition.of(640, 360).bitrate(8_000_000).frameRate(30), false),
                transcoder("by quality, of the source's size", true, quality, false),
                transcoder("with CABAC", true, Rendition.of(640, 360).bitrate(800_000)
                        .entropyCoding(Rendition.EntropyCoding.CABAC), false),
                transcoder("fine, in parallel", false, Rendition.of(640, 360).bitrate(800_000).quantisers(1, 20), true),
                VIDEO_ENCODER, PIPELINE);
        Kind known = transcoder("320x180 at 1 Mbit/s", false, Rendition.of(320, 180).bitrate(1_000_000), false);
        return Stream.concat(Stream.of(new Case(known, 320, 180, 1, false),
                        new Case(transcoder("720p", true, Rendition.of(1280, 720).bitrate(2_500_000), false), 1280, 720, 1, false)),
                kinds.stream().flatMap(kind -> Stream.of(new Case(kind, 640, 360, 1, false), new Case(kind, 640, 360, 3, true))));
    }

    /** At most the noisy pictures are missing; what comes out can be decoded, each picture is the one that it should be. */
    @ParameterizedTest
    @MethodSource("cases")
    void losesAtMostThePicturesThatFail(Case stream) throws Exception {
        List<EncoderFailure> failures = new ArrayList<>();
        List<AccessUnit> units = new ArrayList<>();
        int total = BEFORE + stream.noisy + AFTER;
        Picture[] source = new Picture[total];
        Engine engine = stream.kind.opener.open(stream.width, stream.height, failures::add);
        try (AutoCloseable opened = engine.opened) {
            for (int i = 0; i < total; i++) {
                boolean noisy = i >= BEFORE && i < BEFORE + stream.noisy;
                source[i] = noisy ? Uncompressed.noise(stream.width, stream.height, 40 * i, stream.twoValued)
                        : Uncompressed.grey(stream.width, stream.height, 40 * i);
                engine.write.accept(source[i], units::add);
            }
            long lost = total - units.size();
            assertFalse(failures.isEmpty(), "nothing failed");
            assertEquals(lost, failures.stream().filter(EncoderFailure::lost).count());
            assertTrue(stream.kind == VIDEO_ENCODER || lost(opened).equals(List.of(lost, 0L)), () -> lost(opened).toString());
        }
        List<Long> times = units.stream().map(AccessUnit::time).toList();
        for (EncoderFailure failure : failures) {
            assertEquals(0, failure.index());
            assertTrue(failure.time() >= 40 * BEFORE && failure.time() < 40 * (BEFORE + stream.noisy), failure::toString);
            assertTrue(failure.reason().matches(".*\\((result 3|error -\\d+)\\)"), failure::toString);
            assertEquals(failure.lost(), !times.contains(failure.time()));
            // The picture itself is a key picture if it comes, otherwise the next that does.
            int next = (int) times.stream().filter(time -> time < failure.time()).count();
            assertTrue(units.get(next).isKey(), failure::toString);
        }
        List<Long> quiet = LongStream.range(0, total).filter(i -> i < BEFORE || i >= BEFORE + stream.noisy).map(i -> 40 * i)
                .boxed().toList();
        assertTrue(times.containsAll(quiet), () -> times + " of " + total);
        if (stream.kind.survivesAtOnce && stream.noisy == 1) {
            assertEquals(total, times.size());
        }
        List<Picture> decoded = Vectors.decode(units.stream().map(AccessUnit::bytes).toList());
        assertEquals(units.size(), decoded.size());
        for (int i = 0; i < decoded.size(); i++) {
            if (quiet.contains(times.get(i))) {
                assertTrue(Vectors.psnr(source[(int) (times.get(i) / 40)], decoded.get(i)) > 40, "picture " + i);
            }
        }
    }

    @Test
    void tellsTheFlightRecorderAndThrowsWhatTheListenerThrows() throws Exception {
        Engine engine = PIPELINE.opener.open(320, 180, failure -> {
            throw new ArithmeticException("told");
        });
        try (AutoCloseable opened = engine.opened) {
            List<RecordedEvent> events = Vectors.recorded(() -> {
                for (int i = 0; i < BEFORE; i++) {
                    engine.write.accept(Uncompressed.grey(320, 180, 40 * i), unit -> { });
                }
                Picture noise = Uncompressed.noise(320, 180, 40 * BEFORE, false);
                assertThrows(ArithmeticException.class, () -> engine.write.accept(noise, unit -> { }));
            });
            assertEquals(List.of("Pipeline 0 false"), events.stream().filter(event -> event.hasField("lost"))
                    .map(event -> event.getString("engine") + " " + event.getInt("index") + " " + event.getBoolean("lost"))
                    .toList());
        }
    }

    /**
     * A library that fails at every picture, and noise that OpenH264 fails at, in a process of their own: neither memory nor
     * what is printed grows with the pictures, and few encoders are made.
     */
    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void anEncoderThatAlwaysFailsCostsLittle(boolean fake) throws Exception {
        Path recorder = Path.of(System.getProperty("test.modules"), "../lib/amd64-Linux-gpp/jni/libopenh264-1.8.0-linux64.4.so");
        ProcessBuilder program = new ProcessBuilder(System.getProperty("java.home") + "/bin/java", "-Xmx64m",
                "-Dkelvane.library=" + System.getProperty("kelvane.library"),
                "-Dkelvane.openh264=" + (fake ? recorder.normalize() : System.getProperty("kelvane.openh264")),
                "-cp", System.getProperty("java.class.path"), "com.kelvane.media.test.Failing").redirectErrorStream(true);
        if (fake) {
            program.environment().put("OPENH264_FAILS", "always");
        }
        Process run = program.start();
        String output = new String(run.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, run.waitFor(), output);
        assertTrue(output.contains("\n3000 failed, 3000 told\n"), output);
        boolean keepsWhatIsFreed = System.getenv("ASAN_OPTIONS") != null; // to find uses of it, up to 256 MB
        assertTrue(keepsWhatIsFreed || output.lines().filter(line -> line.contains("grew by"))
                .allMatch(line -> line.matches(".* [0-3] MB")), output);
        assertTrue(!fake || output.contains("\n391 encoders\n"), output); // for each of 300, then for each 30th
        assertTrue(output.lines().count() < 40, output);
    }
}
