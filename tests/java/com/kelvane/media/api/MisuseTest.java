package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertDoesNotThrow;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.AacEncoder;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.MediaException;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Pcm;
import com.kelvane.media.Picture;
import com.kelvane.media.PicturePlan;
import com.kelvane.media.Pipeline;
import com.kelvane.media.ProcessingModule;
import com.kelvane.media.Rendition;
import com.kelvane.media.Resampler;
import com.kelvane.media.Tarnwick;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.VideoEncoder;
import com.kelvane.media.test.EngineKind;
import com.kelvane.media.transform.codec.AACDecoder;
import com.kelvane.media.transform.codec.AACEncoder;
import com.kelvane.media.transform.codec.AVCDecoder;
import com.kelvane.media.transform.codec.AVCEncoder;
import com.kelvane.media.transform.codec.AVCProcessor;
import com.kelvane.media.transform.codec.MIRVProcessor;
import com.kelvane.media.transform.codec.MPADecoder;
import com.kelvane.media.transform.codec.Muxer;
import com.kelvane.media.transform.codec.NOpusDecoder;
import com.kelvane.media.transform.codec.NOpusEncoder;
import com.kelvane.media.transform.codec.OpenH264Encoder;
import com.kelvane.media.transform.codec.PcmResampler;
import java.lang.ref.WeakReference;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.ByteBuffer;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.Comparator;
import java.util.List;
import java.util.Optional;
import java.util.StringJoiner;
import java.util.concurrent.Callable;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.logging.LogRecord;
import java.util.logging.Logger;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** What a caller can do wrong: each gets an exception with a message worth reading, and the process lives on. */
final class MisuseTest {
    private static final int PACKED = 176 * 144 * 3 / 2; // bytes of a picture of the plain stream
    private static final byte[] AAC_LC_STEREO = {0x12, 0x10};
    private static final byte[] UNIT = Vectors.units(Vectors.PLAIN).get(0);

    private static Transcoder transcoder() {
        return Transcoder.builder().rendition(Rendition.of(64, 48).bitrate(100_000)).open();
    }

    private static List<EngineKind> kinds() {
        return EngineKind.all(UNIT);
    }

    private record Case(Class<? extends Exception> type, Executable call, String message) {
        Case(Executable call, String message) {
            this(IllegalArgumentException.class, call, message);
        }
    }

    private static String messageOf(Class<? extends Exception> type, Executable call) {
        return assertThrows(type, call).getMessage();
    }

    @ParameterizedTest
    @MethodSource("kinds")
    void refusesUseAfterCloseAndTakesAnotherClose(EngineKind kind) throws Exception {
        AutoCloseable engine = kind.open().get();
        kind.call().accept(engine);
        engine.close();
        engine.close();
        String message = messageOf(IllegalStateException.class, () -> kind.call().accept(engine));
        assertTrue(message.endsWith(": this " + kind.name() + " is closed"), message);
    }

    /** Four threads that use and at last close one engine: each call is served or refused, and nothing else happens. */
    @ParameterizedTest
    @MethodSource("kinds")
    void refusesUseFromSeveralThreadsAtOnce(EngineKind kind) throws Exception {
        AutoCloseable engine = kind.open().get();
        AtomicInteger served = new AtomicInteger();
        AtomicInteger refused = new AtomicInteger();
        CountDownLatch start = new CountDownLatch(4);
        Callable<Void> user = () -> {
            start.countDown();
            start.await();
            for (int call = 0; call < 20_000 && refused.get() < 20; call++) {
                try {
                    kind.call().accept(engine);
                    served.incrementAndGet();
                } catch (IllegalStateException inUse) {
                    if (inUse.getMessage().endsWith("is closed")) { // by another that was quicker
                        return null;
                    }
                    assertTrue(inUse.getMessage().contains(": this " + kind.name() + " is in use by the thread \"user\""),
                            inUse.getMessage());
                    refused.incrementAndGet();
                }
            }
            engine.close(); // while the others may be inside
            return null;
        };
        ExecutorService users = Executors.newFixedThreadPool(4, task -> new Thread(task, "user"));
        for (Future<Void> done : users.invokeAll(Collections.nCopies(4, user))) {
            done.get();
        }
        users.shutdown();
        assertTrue(served.get() > 0 && refused.get() > 0, served + " served, " + refused + " refused");
    }

    /** How a server ends a stream: from another thread, in the middle of a call. The call ends well, and frees the engine. */
    @Test
    void closesWhenTheCallUnderWayIsOver() {
        Transcoder transcoder = transcoder();
        List<Integer> sizes = new ArrayList<>();
        transcoder.write(UNIT, 0, picture -> {
            CompletableFuture.runAsync(transcoder::close).join();
            transcoder.close(); // closed already, as far as anybody outside can see
            sizes.add(picture.copy().length);
        });
        assertEquals(1, sizes.size());
        String message = messageOf(IllegalStateException.class, () -> transcoder.write(UNIT, 0, p -> { }));
        assertTrue(message.endsWith("this Transcoder is closed"), message);
    }

    @Test
    void refusesCallsFromItsOwnCallback() {
        try (Transcoder transcoder = transcoder(); VideoDecoder decoder = VideoDecoder.open();
                Transcoder other = transcoder()) {
            for (Runnable call : List.<Runnable>of(transcoder::close, () -> transcoder.write(UNIT, 0, p -> { }),
                    () -> transcoder.drain(p -> { }), () -> transcoder.remove(0), () -> transcoder.add(transcoder.renditions().get(0)))) {
                String message = messageOf(IllegalStateException.class, () -> transcoder.write(UNIT, 0, picture -> {
                    other.write(UNIT, 0, p -> { }); // another's business
                    transcoder.statistics();
                    call.run();
                }));
                assertTrue(message.endsWith(": called from a callback of the same Transcoder, which is still at work; do it when the"
                        + " call that makes the callbacks has returned"), message);
            }
            decoder.decode(UNIT, 0);
            Vectors.units(Vectors.REORDERED).forEach(unit -> decoder.decode(unit, 0));
            assertThrows(IllegalStateException.class, () -> decoder.drain(picture -> decoder.close()));
        }
    }

    @Test
    void endsAnEncodedPictureWithItsCallback() {
        List<EncodedPicture> kept = new ArrayList<>();
        try (Transcoder transcoder = transcoder()) {
            transcoder.write(UNIT, 7, kept::add);
            EncodedPicture picture = kept.get(0);
            for (Executable use : List.<Executable>of(picture::data, picture::copy, picture::isKey)) {
                assertTrue(messageOf(IllegalStateException.class, use).contains("keep a copy()"));
            }
            assertEquals(7, picture.time());
            assertThrows(IndexOutOfBoundsException.class, () -> transcoder.parameterSets(1));
        }
        List<PicturePlan> plans = new ArrayList<>();
        try (Transcoder transcoder = Transcoder.builder().rendition(Rendition.of(64, 48).bitrate(100_000)).plan(plan -> {
            plans.add(plan);
            plan.select(1, true);
        }).open()) {
            assertThrows(IndexOutOfBoundsException.class, () -> transcoder.write(UNIT, 0, kept::add));
            assertThrows(IllegalStateException.class, plans.get(0)::keyAll);
            assertEquals(1, kept.size());
        }
    }

    /** The message names the setting, what it was and what is allowed. */
    @Test
    void saysWhatIsAllowed() {
        Rendition small = Rendition.of(64, 48);
        List<Case> cases = List.of(
                new Case(() -> Rendition.of(641, 8), "width is 641, allowed are even numbers from 16 to 8192 pixels;"
                        + " height is 8, allowed are even numbers from 16 to 8192 pixels"),
                new Case(() -> Rendition.of(8192, 2304), "size is 8192x2304, allowed are as many pixels as 4096x2304 has"),
                new Case(() -> Rendition.of(0, 0), "width and height are 0; ofSourceSize() takes the source's"),
                new Case(() -> small.bitrate(999), "bitrate is 999, allowed are 1000 to 288000000 bits per second"),
                new Case(() -> small.frameRate(61), "frameRate is 61, allowed are 1 to 60 pictures per second,"
                        + " or 0 to follow the pictures' times"),
                new Case(() -> small.keyInterval(-1),
                        "keyInterval is -1, allowed are 1 to 480 pictures, or 0 for every four seconds"),
                new Case(() -> small.quantisers(40, 20), "smallestQuantiser 40 is above largestQuantiser 20"),
                new Case(() -> Transcoder.builder().open(), "there are 0 renditions, allowed are 1 to 65536"),
                new Case(() -> Transcoder.builder().rendition(small).rendition(Rendition.ofSourceSize()).open(),
                        "rendition 1 (64x48): no bit rate was given, allowed are 1000 to 288000000 bits per second;"
                                + " rendition 2 (source size): no bit rate was given, allowed are 1000 to 288000000 bits per second"),
                new Case(() -> VideoEncoder.builder().open(), "size and bitrate must be given"),
                new Case(() -> VideoEncoder.builder().size(15, 16), "width is 15, allowed are 16 to 8192 pixels"),
                new Case(() -> VideoEncoder.builder().frameRate(61), "frameRate is 61, allowed are 1 to 60 pictures per second"),
                new Case(() -> VideoEncoder.builder().size(8191, 8191),
                        "size is 8191x8191, allowed are as many pixels as 4096x2304 has"),
                new Case(() -> Pipeline.builder().timescale(0), "timescale is 0, allowed are 1 to 1000000000 ticks a second"),
                new Case(() -> new Picture(64, 48, 0, new byte[7]), "a packed picture of 64x48 has 4608 bytes, not 7"),
                new Case(() -> Pipeline.builder().setting("region", "").open(),
                        "there is no module that could take the setting region"),
                new Case(() -> AacDecoder.open(new byte[] {0x2b, 0x10}),
                        "the AudioSpecificConfig announces the audio object type 5, allowed is 2 (AAC-LC)"),
                new Case(() -> AacDecoder.open(new byte[] {0x12, 0x30}),
                        "channels of the AudioSpecificConfig is 6, allowed are 1 to 2 channels"),
                new Case(() -> AacEncoder.builder().sampleRate(44_000), "sampleRate is 44000, allowed are "
                        + AacEncoder.SAMPLE_RATES + " Hz"),
                new Case(() -> OpusEncoder.builder().bitrate(5999), "bitrate is 5999, allowed are 6000 to 510000 bits per second"),
                new Case(() -> AacEncoder.builder().channels(1).sampleRate(44_100).bitrate(300_000).open(),
                        "bitrate is 300000, allowed are 8000 to 264600 bits per second at 44100 Hz with 1 channel"),
                new Case(() -> AacEncoder.builder().bitrate(0), "bitrate is 0, allowed are 8000 to 1152000 bits per second"),
                new Case(() -> OpusEncoder.builder().packetLoss(101), "packetLoss is 101, allowed are 0 to 100 per cent"),
                new Case(() -> OpusEncoder.builder().complexity(11), "complexity is 11, allowed are 0 to 10 steps"),
                new Case(() -> OpusEncoder.builder().frameDuration(Duration.ofMillis(30)),
                        "frameDuration is PT0.03S, allowed are 2.5, 5, 10, 20, 40 and 60 ms"),
                new Case(() -> OpusEncoder.builder().fec(true).frameDuration(Duration.ofMillis(5)).open(),
                        "there are no copies in packets shorter than 10 ms"),
                new Case(() -> losing(new byte[0], Duration.ofMillis(20)), "the packet is empty; conceal() stands in for lost ones"),
                new Case(() -> losing(new byte[1], Duration.ofMillis(121)),
                        "duration is PT0.121S, allowed are 2.5 to 120 ms in steps of 2.5 ms"),
                new Case(() -> Resampler.builder().from(7349, 1), "sampleRate is 7349, allowed are 7350 to 192000 Hz"),
                new Case(() -> Resampler.builder().to(48_000, 0), "channels is 0, allowed are 1 to 2 channels"),
                new Case(() -> Resampler.builder().frame(0), "frame is 0, allowed are 1 to 192000 samples"),
                new Case(() -> concealing(Duration.ofMillis(11)),
                        "duration is PT0.011S, allowed are 2.5 to 120 ms in steps of 2.5 ms"),
                new Case(() -> concealing(Duration.ofDays(400_000)),
                        "duration is PT9600000H, allowed are 2.5 to 120 ms in steps of 2.5 ms"),
                new Case(() -> OpusDecoder.open(3), "channels is 3, allowed are 1 to 2 channels"),
                new Case(() -> new Pcm(2, 48_000, new byte[6]), "6 bytes are no whole number of samples for 2 channels"));
        for (Case wrong : cases) {
            assertEquals(wrong.message, messageOf(IllegalArgumentException.class, wrong.call));
        }
        try (VideoDecoder decoder = VideoDecoder.open(); OpusEncoder encoder = OpusEncoder.builder().open();
                AacDecoder aac = AacDecoder.open(AAC_LC_STEREO); Mp3Decoder mp3 = Mp3Decoder.open();
                Resampler resampler = Resampler.builder().from(44_100, 2).open()) {
            assertEquals("the sound is 48000 Hz with 1 channel, this resampler takes 44100 Hz with 2 channels", messageOf(
                    IllegalArgumentException.class, () -> resampler.convert(new Pcm(1, 48_000, new byte[2]), pcm -> { })));
            assertEquals("Resampler.close: called from a callback of the same Resampler, which is still at work; do it when the call"
                    + " that makes the callbacks has returned", messageOf(IllegalStateException.class,
                    () -> resampler.convert(new Pcm(2, 44_100, new byte[8192]), pcm -> resampler.close())));
            assertEquals("an access unit begins with the start code 00 00 00 01 or 00 00 01; this one begins with 00 00 02 3f."
                    + " MP4, MKV and FLV put lengths there instead: replace each by a start code",
                    messageOf(IllegalArgumentException.class, () -> decoder.decode(new byte[] {0, 0, 2, 0x3f, 0x65}, 0)));
            for (Executable call : List.<Executable>of(() -> decoder.decode(UNIT, 1, UNIT.length, 0), () -> decoder.decode(UNIT, -1, 4, 0),
                    () -> decoder.decode(UNIT, Integer.MAX_VALUE, 4, 0))) {
                assertThrows(IndexOutOfBoundsException.class, call);
            }
            ByteBuffer noVideo = ByteBuffer.allocateDirect(9);
            assertThrows(IllegalArgumentException.class, () -> decoder.decode(noVideo, 0));
            assertEquals(9, noVideo.remaining());
            for (Executable call : List.<Executable>of(() -> decoder.decode((byte[]) null, 0), () -> decoder.decode((ByteBuffer) null, 0),
                    () -> aac.decode(null),
                    () -> mp3.decode(null))) {
                assertThrows(NullPointerException.class, call);
            }
            assertEquals("a frame has 3840 bytes, not 3839",
                    messageOf(IllegalArgumentException.class, () -> encoder.encode(new byte[3839])));
        }
    }

    /** Each names the call; none changes anything. */
    @Test
    void refusesWrongSteering() {
        Class<IllegalStateException> state = IllegalStateException.class;
        Class<IndexOutOfBoundsException> bounds = IndexOutOfBoundsException.class;
        Transcoder ladder = Transcoder.builder().rendition(Rendition.of(64, 48).bitrate(100_000))
                .rendition(Rendition.of(32, 32).bitrate(50_000)).open();
        VideoEncoder encoder = VideoEncoder.builder().size(64, 48).bitrate(300_000).open();
        Pipeline pipeline = Pipeline.builder().open();
        Pipeline passing = Pipeline.builder().passThrough().open();
        Transcoder closed = transcoder();
        closed.close();
        OpusEncoder opus = OpusEncoder.builder().application(OpusEncoder.Application.LOW_DELAY).open();
        ladder.remove(1);
        List<Case> cases = List.of(
                new Case(bounds, () -> ladder.bitrate(2, 100_000), "Transcoder.bitrate: there is no rendition 2, indices are 0 to 1"),
                new Case(bounds, () -> ladder.pause(-1), "Transcoder.pause: there is no rendition -1, indices are 0 to 1"),
                new Case(() -> ladder.bitrate(0, 999), "bitrate is 999, allowed are 1000 to 288000000 bits per second"),
                new Case(() -> ladder.bitrate(0, 0), "bitrate is 0, allowed are 1000 to 288000000 bits per second"),
                new Case(() -> ladder.frameRate(0, -1), "frameRate is -1, allowed are 1 to 60 pictures per second,"
                        + " or 0 to follow the pictures' times"),
                new Case(state, () -> ladder.requestKey(1), "Transcoder.requestKey: rendition 1 was removed"),
                new Case(state, () -> ladder.remove(1), "Transcoder.remove: rendition 1 was removed"),
                new Case(() -> ladder.add(Rendition.of(64, 48)),
                        "64x48: no bit rate was given, allowed are 1000 to 288000000 bits per second"),
                new Case(NullPointerException.class, () -> ladder.add(null), null),
                new Case(state, () -> closed.resume(0), "Transcoder.resume: this Transcoder is closed"),
                new Case(state, () -> closed.add(Rendition.of(64, 48).bitrate(1000)), "Transcoder.add: this Transcoder is closed"),
                new Case(() -> encoder.bitrate(999), "bitrate is 999, allowed are 1000 to 288000000 bits per second"),
                new Case(() -> pipeline.bitrate(0), "bitrate is 0, allowed are 1000 to 288000000 bits per second"),
                new Case(() -> opus.bitrate(510_001), "bitrate is 510001, allowed are 6000 to 510000 bits per second"),
                new Case(() -> opus.packetLoss(-1), "packetLoss is -1, allowed are 0 to 100 per cent"),
                new Case(state, () -> opus.fec(true), "OpusEncoder.fec: there are no copies with LOW_DELAY, which never codes as speech"),
                new Case(state, passing::requestKey, "Pipeline.requestKey: nothing is encoded in pass-through mode"));
        for (Case wrong : cases) {
            String message = messageOf(wrong.type, wrong.call);
            assertTrue(wrong.message == null || wrong.message.equals(message), message);
        }
        assertEquals(100_000, ladder.renditions().get(0).bitrate());
        for (AutoCloseable engine : List.of(ladder, encoder, pipeline, passing, opus)) {
            assertDoesNotThrow(engine::close);
        }
        assertEquals("VideoEncoder.requestKey: this VideoEncoder is closed", messageOf(state, encoder::requestKey));
        assertEquals("OpusEncoder.packetLoss: this OpusEncoder is closed", messageOf(state, () -> opus.packetLoss(5)));
        assertEquals("Pipeline.bitrate: this Pipeline is closed", messageOf(state, () -> pipeline.bitrate(5000)));
    }

    private static void losing(byte[] next, Duration duration) {
        try (OpusDecoder decoder = OpusDecoder.open(1)) {
            decoder.decodeLost(next, duration);
        }
    }

    private static void concealing(Duration duration) {
        try (OpusDecoder decoder = OpusDecoder.open(1)) {
            decoder.conceal(duration);
        }
    }

    /** As virtual threads are, unless they are given a name. */
    @Test
    void namesAThreadWithoutANameByItsId() throws Exception {
        ExecutorService nameless = Executors.newSingleThreadExecutor(task -> new Thread(task, ""));
        try (Transcoder transcoder = transcoder()) {
            nameless.submit(() -> transcoder.write(UNIT, 0, picture -> {
                CompletableFuture<String> told = CompletableFuture.supplyAsync(() -> messageOf(IllegalStateException.class,
                        () -> transcoder.drain(p -> { })));
                assertEquals("Transcoder.drain: this Transcoder is in use by the thread with the id "
                        + Thread.currentThread().getId() + "; one thread may use it at a time", told.join());
            })).get();
            assertEquals(1, transcoder.statistics().pictures());
        }
        nameless.shutdown();
    }

    @Test
    void saysWhatIsWrongWithAModule() {
        Path modules = Path.of(System.getProperty("test.modules"));
        record Case(String file, String message) {
        }
        for (Case wrong : List.of(new Case("none.so", ": no such file"), new Case(".", " is not a file"),
                new Case("no_create.so", " is no processing module: it does not export CreateVideoProcessor"))) {
            Path file = modules.resolve(wrong.file);
            assertEquals(file + wrong.message, messageOf(MediaException.class, () -> ProcessingModule.load(file)));
        }
        ProcessingModule first = ProcessingModule.load(modules.resolve("recorder.so"));
        assertEquals(first, ProcessingModule.load(modules.resolve("../modules/recorder.so")));
        String message = messageOf(MediaException.class, () -> ProcessingModule.load(modules.resolve("same_guid.so")));
        assertTrue(message.contains("same_guid.so has the GUID of ") && message.contains("recorder.so, 305419896"), message);
        ProcessingModule mosaic = ProcessingModule.load(Path.of(System.getProperty("test.mosaic")));
        message = messageOf(IllegalArgumentException.class,
                () -> Pipeline.builder().module(mosaic).setting("region", "1,2").open());
        assertTrue(message.endsWith("mosaic.so refused the setting region=1,2"), message);
    }

    @Test
    void saysWhatIsWrongWithAnOpenH264() {
        Path module = Path.of(System.getProperty("test.modules"), "recorder.so");
        String text = "it is OpenH264 2.7.0; those that will do are 1.8 to 2.6";
        assertEquals(text, AVCEncoder.problem(System.getProperty("test.openh264")));
        assertEquals("it is no OpenH264", AVCEncoder.problem(module.toString()));
        assertTrue(AVCEncoder.problem(module + ".none").endsWith("No such file or directory"));
        assertNull(AVCEncoder.problem(System.getProperty("kelvane.openh264")));
        assertNull(AVCEncoder.problem(null));
    }

    /** What nobody closes is freed, and one warning says where it was opened. */
    @Test
    void freesAndTellsOfWhatNobodyClosed() throws InterruptedException {
        List<LogRecord> warnings = new ArrayList<>();
        Logger logger = Logger.getLogger("com.kelvane.media");
        logger.setFilter(warning -> {
            synchronized (warnings) {
                warnings.add(warning);
                warnings.notifyAll();
            }
            return false;
        });
        System.setProperty("kelvane.leak.trace", "true");
        try {
            WeakReference<VideoDecoder> forgotten = new WeakReference<>(openAndForget());
            synchronized (warnings) {
                for (int i = 0; i < 100 && warnings.isEmpty(); i++) {
                    System.gc();
                    warnings.wait(100);
                }
                assertEquals(null, forgotten.get());
                assertEquals(1, warnings.size());
                assertEquals("a VideoDecoder was never closed; the garbage collector had to free it",
                        warnings.get(0).getMessage());
                assertTrue(List.of(warnings.get(0).getThrown().getStackTrace()).stream()
                        .anyMatch(frame -> frame.getMethodName().equals("openAndForget")));
            }
        } finally {
            System.clearProperty("kelvane.leak.trace");
            logger.setFilter(null);
        }
    }

    private static VideoDecoder openAndForget() {
        VideoDecoder decoder = VideoDecoder.open();
        decoder.decode(UNIT, 0);
        return decoder;
    }

    /** A listener of the bare natives: closes its transcoder in each callback. */
    public record Closing(long transcoder, List<Integer> called) {
        public void receiveVideo(int index, int time, ByteBuffer data) {
            MIRVProcessor.close(transcoder);
            called.add(data.get(4) & 31); // the buffer is still whole
        }
    }

    @Test
    void aTranscoderOfTheNativesMayBeClosedFromItsOwnCallback() {
        transcoder().close(); // loads the library
        for (int i = 0; i < 20; i++) {
            long transcoder = MIRVProcessor.open(3);
            for (int id = 1; id <= 3; id++) {
                MIRVProcessor.apply(id, "videoBR", "100000", transcoder);
            }
            Closing listener = new Closing(transcoder, new ArrayList<>());
            assertEquals(1, MIRVProcessor.write(listener, 0, UNIT, transcoder));
            assertEquals(List.of(7, 7, 7), listener.called, "sequence parameter sets come first");
        }
    }

    /** Native methods of an engine, what they return to no argument at all, and what to open the engine with. */
    record Bare(Class<?> type, byte[] input, String answers, Object... open) {
        @Override
        public String toString() {
            return type.getSimpleName();
        }

        Object call(Method method, long handle, int left) throws ReflectiveOperationException {
            Class<?>[] types = method.getParameterTypes();
            Object[] arguments = new Object[types.length];
            List<byte[]> arrays = new ArrayList<>();
            for (int i = 0; i < types.length; i++) {
                boolean last = i + 1 == types.length;
                if (types[i] == byte[].class) {
                    arrays.add(arrays.isEmpty() ? input.clone() : new byte[PACKED]);
                }
                arguments[i] = types[i] == int.class ? (Object) 0 : types[i] == float.class ? (Object) 25f : types[i] == boolean.class ? false
                        : types[i] == long.class ? (Object) (last && i != left ? handle : 0L) : i == left ? null : types[i] == String.class ? "x" : types[i] == byte[].class
                        ? arrays.get(arrays.size() - 1) : types[i] == ByteBuffer.class ? ByteBuffer.allocateDirect(8) : new Object();
            }
            Object answer = method.invoke(null, arguments);
            for (int i = 0; left >= 0 && i < arrays.size(); i++) {
                assertTrue(Arrays.equals(arrays.get(i), i == 0 ? input : new byte[PACKED]), method::getName);
            }
            return answer instanceof Long number && number > 0 ? "+" : answer;
        }
    }

    private static List<Bare> bareEngines() {
        byte[] sound = new byte[4096];
        return List.of(
                new Bare(Tarnwick.class, sound, "av_free null: null, av_malloc +:, avcodec_alloc_frame +:, avcodec_free_frame null: null, "
                        + "avframe_set_data null: null, avframe_set_key_frame null:, avframe_set_linesize null:, "
                        + "avpacket_set_data null: null, avpicture_fill -22:, sws_freeContext null: null, "
                        + "sws_getCachedContext 0:, sws_scale -1: -1, sws_scale -1: -1 -1"),
                new Bare(MIRVProcessor.class, UNIT, "addOutput 1: -1, apply 0: 0 0 0, copyEncoded 0: 0 0, decode 1: 0 0, decodePart -1: -1 -1 0, drain 0: 0 0, "
                        + "encode 0: 0 0, encodeInto 0: 0 0, encodeKept 0: 0 0, encodedAs 0: 0, failure 0: 0, keep 0: 0, makePlaces 1: 0, outcome 3: 3, pictureInfo 0: 0, pictureTime 0: 0, releaseOutput 1: 0, "
                        + "renew 0: 0, requestKey 0: 0, setBitrate 1: 0, setFrameRate 1: 0, start 1: 1, startOutput 1: 0, "
                        + "status 2: 2, write 1: 1 0 0", 1),
                new Bare(AVCDecoder.class, UNIT, "decode 1: 0 0 0 0, decodeAt 1: 0 0 0 0, decodePart -1: -1 -1 0 0 0, drain 0: 0 0 0, "
                        + "pictureTime 0: 0, take 0: 0 0 0"),
                new Bare(AVCEncoder.class, new byte[PACKED], "encode 0: 0 0 0, loadLibrary 1: 0, problem null", 176, 144, 25,
                        50, 300_000),
                new Bare(AVCProcessor.class, UNIT, "apply -1: -1 -1 -1, attached 0: 0, brew 1: 0, drain 0: 0 0, failure 0: 0, "
                        + "loadLibrary 0: 0, pictureTime 0: 0, problem null, read 0: 0 0 0, renew 0: 0, requestKey 1: 0, "
                        + "retry 0: 0 0, setBitrate 1: 0, write 1: 0 0 0, writePart -1: -1 -1 0 0", 25, 300_000, 0, 0, 0, 0),
                new Bare(OpenH264Encoder.class, new byte[PACKED], "encode 1: 0 0 0, encodePart 0: 0 0 0 0 0, failure -1: 0, renew 1: 0, "
                        + "requestKey 1: 0, setBitrate 1: 0, status 0: 1", 176, 144, 25, 300_000, 0),
                new Bare(AACDecoder.class, AAC_LC_STEREO, "decode 0: 0 0 0 0, open 0", AAC_LC_STEREO),
                new Bare(AACEncoder.class, sound, "encode 0: 0 0 0 -1", 2, 48_000),
                new Bare(MPADecoder.class, sound, "decode 0: 0 0 0 0"),
                new Bare(NOpusDecoder.class, new byte[] {-4}, "carriesFec false: false, conceal 0: 0 0, decode 960: 0 0 -1, decodeLost 0: 0 0 0, limitFailureLines null: null", 2, 0),
                new Bare(NOpusEncoder.class, sound, "encode 160: 0 0 -1, packetSize 160: 0, set 0: 0", 2, 64_000, 20),
                new Bare(PcmResampler.class, sound, "convert 925: 0 0 0, drain 16: 0 0", 2, 48_000, 2, 44_100),
                new Bare(Muxer.class, UNIT, "addPictures -2001: -2001 -2001 -2001, addSound -2001: -2001 -2001, begin -2001: -2001, "
                        + "cut -2001: -2001, describe 7: 0, finish -2001: -2001, label -2001: -2001 -2001 -2001, next 0: 0 0, open 0, "
                        + "run -2001: -2001 -2001, take 0: 0 0, write -2002: -2001 -2001", "matroska", 0));
    }

    /** Parts that there are not, of arrays and of direct buffers; one that there is comes last. */
    @Test
    void nativesTakePartsThatThereAreNot() {
        long transcoder = MIRVProcessor.open(0);
        long decoder = AVCDecoder.open();
        long pipeline = AVCProcessor.open(25, 300_000, 3, 0, 0, 0);
        long encoder = OpenH264Encoder.openAt(176, 144, 25, 300_000);
        byte[] out = new byte[PACKED];
        byte[] picture = Arrays.copyOf(UNIT, PACKED);
        ByteBuffer direct = ByteBuffer.allocateDirect(PACKED).put(picture);
        for (int[] part : new int[][] {{-1, 4}, {0, -1}, {1, PACKED}, {PACKED, 1}, {Integer.MAX_VALUE, Integer.MAX_VALUE},
                {Integer.MIN_VALUE, Integer.MAX_VALUE}, {0, PACKED}}) {
            for (ByteBuffer buffer : new ByteBuffer[] {null, direct, ByteBuffer.allocate(PACKED), direct.slice()}) {
                byte[] array = buffer == null ? picture : null;
                boolean isThere = part[0] == 0 && part[1] > 0 && (buffer == null || buffer == direct);
                assertEquals(List.of(isThere, isThere, isThere, isThere), List.of(
                        MIRVProcessor.decodePart(0, array, buffer, part[0], part[1], transcoder) == 1,
                        AVCDecoder.decodePart(0, array, buffer, part[0], part[1], new byte[6], out, decoder) == 1,
                        AVCProcessor.writePart(0, array, buffer, part[0], part[1], new byte[4], pipeline) == 1,
                        OpenH264Encoder.encodePart(array, buffer, part[0], part[1], out, new byte[7], encoder) == 1));
            }
        }
        assertEquals(0, MIRVProcessor.close(transcoder));
        AVCDecoder.close(decoder);
        assertTrue(AVCProcessor.close(pipeline));
        OpenH264Encoder.close(encoder);
    }

    /** A call with everything; each reference left out in turn, and the handle, which changes no array. */
    @ParameterizedTest
    @MethodSource("bareEngines")
    void nativesTakeNullsAndNoHandle(Bare bare) throws ReflectiveOperationException {
        transcoder().close(); // loads the library
        List<Method> methods = Stream.of(bare.type.getMethods()).filter(method -> Modifier.isNative(method.getModifiers())
                && Modifier.isStatic(method.getModifiers())).sorted(Comparator.comparing(Method::getName)
                .thenComparing(Method::getParameterCount)).toList();
        Optional<Method> open = methods.stream().filter(method -> method.getName().equals("open")).findAny();
        Object handle = open.isPresent() ? open.get().invoke(null, bare.open) : 0L;
        StringJoiner answers = new StringJoiner(", ");
        for (Method method : methods) {
            StringBuilder answer = new StringBuilder(method.getName());
            Class<?>[] types = method.getParameterTypes();
            if (!List.of("open", "openAt", "close", "problem").contains(method.getName())) {
                answer.append(' ').append(bare.call(method, (long) handle, -1)).append(':');
            }
            for (int left = 0; left < types.length; left++) {
                if (!types[left].isPrimitive() || types[left] == long.class && left + 1 == types.length) {
                    answer.append(' ').append(bare.call(method, (long) handle, left));
                }
            }
            if (answer.length() > method.getName().length() && !method.getName().equals("close")) {
                answers.add(answer);
            }
        }
        if (open.isPresent()) {
            bare.type.getMethod("close", long.class).invoke(null, handle);
        }
        assertEquals(bare.answers, answers.toString());
    }
}
