package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.MediaException;
import com.kelvane.media.Picture;
import com.kelvane.media.Pipeline;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.WriteResult;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Optional;
import java.util.Set;
import java.util.concurrent.Executor;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.RejectedExecutionException;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Consumer;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import java.util.stream.LongStream;
import java.util.stream.Stream;
import jdk.jfr.consumer.RecordedEvent;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

final class TranscoderTest {
    private static final List<Rendition> LADDER = List.of(
            Rendition.of(96, 80).bitrate(200_000).frameRate(25).keyInterval(10),
            Rendition.ofSourceSize().bitrate(400_000).frameRate(25),
            Rendition.of(160, 90).bitrate(300_000).entropyCoding(Rendition.EntropyCoding.CABAC).quantisers(20, 40));

    private static void run(Transcoder transcoder, List<AccessUnit> source, Consumer<EncodedPicture> receiver) {
        for (AccessUnit unit : source) {
            transcoder.write(unit.bytes(), unit.time(), receiver);
        }
        transcoder.drain(receiver);
    }

    private static List<Vectors.Encoded> transcode(Transcoder.Builder settings, List<AccessUnit> source) {
        List<Vectors.Encoded> pictures = new ArrayList<>();
        try (Transcoder transcoder = settings.renditions(LADDER).open()) {
            run(transcoder, source, picture -> pictures.add(Vectors.Encoded.of(picture)));
        }
        return pictures;
    }

    /** Every picture comes out, with its own time, in order, and is the picture that it says it is. */
    @Test
    void deliversEveryPictureOfAStreamThatReorders() {
        List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
        assertEquals(30, source.size());
        List<Picture> originals = Vectors.decode(source.stream().map(AccessUnit::bytes).toList());
        List<List<byte[]>> streams = IntStream.range(0, 3).<List<byte[]>>mapToObj(i -> new ArrayList<>()).toList();
        try (Transcoder transcoder = Transcoder.builder().renditions(LADDER).open()) {
            assertEquals(LADDER, transcoder.renditions());
            run(transcoder, source, picture -> {
                assertEquals(streams.get(picture.index()).isEmpty() || picture.index() == 0
                        && streams.get(0).size() % 10 == 0, picture.isKey());
                assertEquals(LADDER.get(picture.index()), picture.rendition());
                ByteBuffer data = picture.data();
                assertTrue(data.isReadOnly());
                byte[] bytes = new byte[picture.size()];
                data.get(bytes);
                assertArrayEquals(picture.copy(), bytes);
                streams.get(picture.index()).add(bytes);
                assertEquals(40 * (streams.get(picture.index()).size() - 1), picture.time());
            });
            Transcoder.Statistics figures = transcoder.statistics();
            assertEquals(30, figures.pictures());
            for (int i = 0; i < 3; i++) {
                assertEquals(30, figures.renditions().get(i).pictures());
                assertEquals(streams.get(i).stream().mapToLong(unit -> unit.length).sum(), figures.renditions().get(i).bytes());
                assertTrue(figures.renditions().get(i).encodeTime().compareTo(Duration.ZERO) > 0);
            }
        }
        assertTrue(Vectors.worst(originals, streams.get(1)) > 30);
        assertEquals(List.of(30, 30), Stream.of(streams.get(0), streams.get(2)).map(stream -> Vectors.decode(stream).size()).toList());
    }

    /**
     * Over jumps of the clock that 32 bits do not tell, with pictures held back before them; in whatever the caller counts,
     * be it so fine that pictures lie within a millisecond.
     */
    @ParameterizedTest
    @ValueSource(ints = {1000, 90_000, 1_000_000_000, 1})
    void givesEveryPictureTheTimeThatItWasGiven(int timescale) {
        List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
        long[] starts = {0, 5_000_000_000_000L, 1_700_000_000_000L, -1_700_000_000_000L, 3_000_000_000L, 1L << 40,
                (1L << 40) + (1L << 32), Long.MIN_VALUE};
        List<Long> expected = new ArrayList<>();
        List<List<Long>> times = List.of(new ArrayList<>(), new ArrayList<>(), new ArrayList<>());
        try (Transcoder transcoder = Transcoder.builder().timescale(timescale).rendition(LADDER.get(0)).open();
                VideoDecoder decoder = VideoDecoder.open(); Pipeline pipeline = Pipeline.builder().timescale(timescale).open()) {
            for (long start : starts) {
                LongStream.range(0, 30).forEach(i -> expected.add(start + 40 * i));
                for (AccessUnit unit : source) {
                    long time = start + unit.time();
                    for (int i = 0; i < 3; i++) { // a picture's time is not that of what lies around it
                        decoder.decode(new byte[] {0, 0, 0, 1, 9, -16}, time + 7 + i);
                    }
                    transcoder.write(unit.bytes(), time, picture -> times.get(0).add(picture.time()));
                    decoder.decode(unit.bytes(), time).ifPresent(picture -> times.get(1).add(picture.time()));
                    pipeline.write(unit.bytes(), time).ifPresent(out -> times.get(2).add(out.time()));
                }
            }
            transcoder.drain(picture -> times.get(0).add(picture.time()));
            decoder.drain(picture -> times.get(1).add(picture.time()));
            pipeline.drain(out -> times.get(2).add(out.time()));
        }
        for (List<Long> given : times) {
            assertEquals(expected, given);
        }
    }

    /** A key picture that is asked for where none is selected is none later. */
    @Test
    void leavesOutPicturesThatAreNotSelectedAndBeginsAnewWhereThatIsAskedFor() {
        List<Long> selected = LongStream.range(2, 15).mapToObj(i -> 80 * i + 40).toList(); // from 200 on, every other one
        for (Transcoder.Builder builder : List.of(Transcoder.builder(), Transcoder.builder().parallel(Runnable::run))) {
            List<List<Long>> times = List.of(new ArrayList<>(), new ArrayList<>(), new ArrayList<>());
            List<List<Long>> keys = List.of(new ArrayList<>(), new ArrayList<>(), new ArrayList<>());
            List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
            try (Transcoder transcoder = builder.renditions(LADDER).plan(picture -> {
                assertEquals("320x180", picture.width() + "x" + picture.height());
                assertEquals(source.stream().anyMatch(unit -> unit.time() == picture.time() && unit.isKey()), picture.isSourceKey());
                if (picture.time() == 240) {
                    picture.keyAll();
                } else if (picture.time() == 280) {
                    picture.key(1);
                }
                if (!selected.contains(picture.time())) {
                    picture.selectAll(false);
                    picture.select(0, true);
                }
            }).open()) {
                run(transcoder, source, picture -> {
                    times.get(picture.index()).add(picture.time());
                    if (picture.isKey()) {
                        keys.get(picture.index()).add(picture.time());
                    }
                });
                assertEquals(List.of(30L, 13L, 13L), transcoder.statistics().renditions().stream()
                        .map(Transcoder.RenditionStatistics::pictures).toList());
                assertEquals(0, transcoder.statistics().renditions().get(1).skipped());
            }
            assertEquals(List.of(selected, selected), times.subList(1, 3));
            // The first rendition has a key interval of 10 pictures, 40 ms apart, counted from the one that was asked for.
            assertEquals(List.of(List.of(0L, 240L, 640L, 1040L), List.of(200L, 280L), List.of(200L)), keys);
        }
    }

    /** With the first picture, and again where another rendition comes in the place of one; not with each key picture. */
    @Test
    void tellsParameterSetsWhenTheyChange() {
        List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
        List<String> told = new ArrayList<>();
        List<String> carried = new ArrayList<>();
        try (Transcoder transcoder = Transcoder.builder().rendition(LADDER.get(0)).open()) {
            assertEquals(Optional.empty(), transcoder.parameterSets(0));
            run(transcoder, source, picture -> {
                picture.newParameterSets().ifPresent(sets -> told.add(picture.time() + " " + sets.codecs()));
                new AccessUnit(picture.copy(), 0).parameterSets().ifPresent(sets -> carried.add(picture.time() + " " + sets.codecs()));
                assertEquals("avc1.42c00b", transcoder.parameterSets(0).orElseThrow().codecs());
                if (picture.time() == 400) {
                    transcoder.requestKey(0);
                }
            });
            transcoder.remove(0);
            transcoder.add(LADDER.get(2));
            run(transcoder, source.subList(0, 3), picture -> picture.newParameterSets()
                    .ifPresent(sets -> told.add(picture.time() + " " + sets.codecs())));
        }
        assertEquals(List.of("0 avc1.42c00b", "0 avc1.640c0c"), told);
        assertEquals(List.of("0 avc1.42c00b", "400 avc1.42c00b", "440 avc1.42c00b", "840 avc1.42c00b"), carried);
    }

    @Test
    void goesOnWithAnotherStreamAfterDrain() {
        List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
        List<Vectors.Encoded> pictures = new ArrayList<>();
        try (Transcoder transcoder = Transcoder.builder().rendition(LADDER.get(0)).open()) {
            for (List<AccessUnit> stream : List.of(source.subList(0, 1), source, source.subList(0, 13))) {
                run(transcoder, stream, picture -> pictures.add(Vectors.Encoded.of(picture)));
                assertEquals(0, transcoder.drain(picture -> pictures.add(null)));
            }
            assertEquals(1 + 30 + 13, pictures.size());
            assertEquals(44, transcoder.statistics().pictures());
        }
    }

    @Test
    void takesNewSizesThreeByteStartCodesAndDamage() {
        List<AccessUnit> source = Vectors.timed(Vectors.CHANGING);
        List<Vectors.Encoded> expected = transcode(Transcoder.builder(), source);
        assertEquals(45, expected.size());
        List<AccessUnit> shorter = source.stream().map(unit -> new AccessUnit(
                Arrays.copyOfRange(unit.bytes(), 1, unit.bytes().length), unit.time())).toList();
        assertEquals(expected, transcode(Transcoder.builder(), shorter));

        try (Transcoder transcoder = Transcoder.builder().rendition(LADDER.get(0)).open()) {
            byte[] noise = new byte[2000];
            new java.util.Random(7).nextBytes(noise);
            System.arraycopy(new byte[] {0, 0, 0, 1, 0x65}, 0, noise, 0, 5);
            assertEquals(WriteResult.REFUSED, transcoder.write(noise, 0, picture -> { }));
            List<Long> times = new ArrayList<>();
            run(transcoder, source, picture -> times.add(picture.time()));
            assertEquals(15, times.size());
        }
    }

    /** D decoded, d damaged, H held back, N no picture, R refused; a small letter behind it: a key picture would help. */
    @Test
    void saysWhatBecameOfEachAccessUnit() {
        record Case(String stream, int lost, int cut, String results) {
        }
        List<byte[]> fields = Vectors.units("fields.h264");
        for (Case given : List.of(new Case(Vectors.PLAIN, -1, -1, "D{30}"), new Case(Vectors.REORDERED, -1, -1, "H{2}D{28}"),
                new Case(Vectors.CHANGING, -1, -1, "D{15}"), new Case("slices.h264", -1, -1, "H{2}D{22}"),
                new Case("fields.h264", -1, -1, "(HD){" + fields.size() / 2 + "}"),
                new Case(Vectors.PLAIN, 5, -1, "D{5}Ndk(Dk)+D+"), new Case(Vectors.PLAIN, 0, -1, "N(Rk)+D+"),
                new Case(Vectors.PLAIN, -1, 7, "D{7}Rk(dk)+(Dk)*D+"))) {
            StringBuilder results = new StringBuilder();
            try (Transcoder transcoder = Transcoder.builder().rendition(LADDER.get(0)).open()) {
                assertFalse(transcoder.needsKey());
                List<byte[]> units = Vectors.units(given.stream);
                for (int i = 0; i < units.size(); i++) {
                    byte[] unit = i == given.lost ? new byte[] {0, 0, 0, 1, 9, (byte) 0xf0} : i == given.cut
                            ? Arrays.copyOf(units.get(i), units.get(i).length / 2) : units.get(i);
                    boolean[] got = new boolean[1];
                    WriteResult result = transcoder.write(unit, 40L * i, picture -> got[0] = true);
                    assertEquals(got[0], result.isPicture());
                    results.append(result == WriteResult.DAMAGED ? 'd' : result.name().charAt(0));
                    results.append(transcoder.needsKey() ? "k" : "");
                }
            }
            assertTrue(results.toString().matches(given.results), given + ": " + results);
        }
    }

    /**
     * The same bytes, whoever runs the tasks. Whatever an executor throws, before or after it took the task: no picture is lost,
     * no task outlives the call.
     */
    @Test
    void encodesInParallelToTheSameBytesWhateverTheExecutorDoes() {
        List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
        List<Vectors.Encoded> expected = transcode(Transcoder.builder(), source);
        ExecutorService threads = Executors.newFixedThreadPool(2);
        List<Runnable> late = new ArrayList<>();
        for (Throwable thrown : Arrays.asList(null, new OutOfMemoryError("unable to create native thread"), new ArithmeticException(),
                new IOException(), new RejectedExecutionException())) {
            for (int failing : new int[] {0, 1}) { // of the two tasks for each picture
                for (Executor taken : List.<Executor>of(late::add, Runnable::run, threads)) {
                    AtomicInteger tasks = new AtomicInteger();
                    Executor executor = task -> {
                        boolean fails = failing == 0 || tasks.getAndIncrement() % 2 == 1;
                        (fails ? taken : threads).execute(task);
                        if (fails && thrown != null) {
                            TranscoderTest.<RuntimeException>raise(thrown);
                        }
                    };
                    List<Vectors.Encoded> pictures = new ArrayList<>();
                    Consumer<EncodedPicture> receiver = picture -> pictures.add(Vectors.Encoded.of(picture));
                    int caught = 0;
                    try (Transcoder transcoder = Transcoder.builder().renditions(LADDER).parallel(executor).open()) {
                        for (int i = 0; i <= source.size(); i++) {
                            try {
                                if (i < source.size()) {
                                    transcoder.write(source.get(i).bytes(), source.get(i).time(), receiver);
                                } else {
                                    transcoder.drain(receiver);
                                }
                            } catch (Throwable told) {
                                assertSame(thrown, told);
                                caught++;
                            }
                        }
                    }
                    assertEquals(expected, pictures);
                    // Each picture's call but those of the held-back ones, which are one call.
                    assertEquals(thrown == null || thrown instanceof RejectedExecutionException ? 0 : 30 - 2 + 1, caught);
                }
            }
        }
        threads.shutdown();
        late.forEach(Runnable::run); // long after the transcoders are gone
    }

    @Test
    void throwsWhatTheReceiverThrewWhenAllRenditionsHadTheirs() {
        List<AccessUnit> source = Vectors.timed(Vectors.PLAIN);
        for (boolean parallel : new boolean[] {false, true}) {
            Transcoder.Builder settings = Transcoder.builder().renditions(LADDER);
            try (Transcoder transcoder = (parallel ? settings.parallel(Runnable::run) : settings).open()) {
                List<Integer> called = new ArrayList<>();
                Exception thrown = assertThrows(IOException.class, () ->
                        transcoder.write(source.get(0).bytes(), 0, picture -> {
                            called.add(picture.index());
                            TranscoderTest.<RuntimeException>raise(new IOException("number " + picture.index()));
                        }));
                assertEquals("number 0", thrown.getMessage());
                assertEquals(List.of(0, 1, 2), called);
                assertTrue(transcoder.write(source.get(1).bytes(), 40, picture -> called.add(picture.index())).isPicture());
                assertEquals(6, called.size());
            }
        }
    }

    @SuppressWarnings("unchecked")
    private static <T extends Throwable> void raise(Throwable thrown) throws T {
        throw (T) thrown;
    }

    /** A tiny source cannot be encoded in its own size: that is said once, and the other renditions go on. */
    @Test
    void saysOnceThatTheSourcesSizeCannotBeEncoded() {
        List<byte[]> tiny = Vectors.units("tiny.h264"); // 12x10
        List<Integer> delivered = new ArrayList<>();
        try (Transcoder transcoder = Transcoder.builder().renditions(LADDER).open()) {
            int thrown = 0;
            for (int i = 0; i < tiny.size(); i++) {
                try {
                    transcoder.write(tiny.get(i), 40 * i, picture -> delivered.add(picture.index()));
                } catch (MediaException refused) {
                    assertTrue(refused.getMessage().contains("the source's size, which rendition 2 "), refused.getMessage());
                    thrown++;
                }
            }
            transcoder.drain(picture -> delivered.add(picture.index()));
            assertEquals(1, thrown);
            assertEquals(2 * tiny.size(), delivered.size());
            assertFalse(delivered.contains(1));
            assertEquals(tiny.size(), transcoder.statistics().renditions().get(1).failed());
        }
    }

    @Test
    void isSeenByTheFlightRecorder() throws Exception {
        List<RecordedEvent> events = Vectors.recorded(() -> transcode(Transcoder.builder(), Vectors.timed(Vectors.PLAIN)));
        Set<String> names = events.stream().map(event -> event.getEventType().getName().substring(18)).collect(Collectors.toSet());
        assertEquals(Set.of("EngineClosed", "EngineOpened", "PictureTranscoded"), names);
        List<RecordedEvent> pictures = events.stream().filter(event -> event.hasField("decodeTime")).toList();
        assertEquals(30, pictures.size());
        for (RecordedEvent event : pictures) {
            Duration parts = event.getDuration("decodeTime").plus(event.getDuration("encodeTime"));
            assertTrue(event.getLong("bytes") > 0 && parts.compareTo(event.getDuration()) <= 0, event::toString);
        }
    }
}
