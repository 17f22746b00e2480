package com.kelvane.media;

import com.kelvane.media.transform.codec.MIRVProcessor;
import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.StringJoiner;
import java.util.concurrent.Executor;
import java.util.function.Consumer;
import java.util.function.IntSupplier;
import java.util.stream.IntStream;
import java.util.stream.Stream;

/**
 * Decodes one H.264 stream once and encodes every picture into several renditions.
 * <pre>{@code
 * try (Transcoder ladder = Transcoder.builder()
 *         .rendition(Rendition.of(1280, 720).bitrate(2_500_000).frameRate(30).keyInterval(60))
 *         .rendition(Rendition.of(640, 360).bitrate(800_000))
 *         .open()) {
 *     for (AccessUnit unit : source) {
 *         ladder.write(unit.bytes(), unit.time(), picture -> send(picture.index(), picture.time(), picture.copy()));
 *     }
 *     ladder.drain(picture -> send(picture.index(), picture.time(), picture.copy()));
 * }
 * }</pre>
 *
 * <p>Pictures come out in display order, each with its own time. A stream that reorders pictures has its first ones held
 * back in the decoder; {@link #drain} hands out the last ones. Input that is damaged or is no video gives no picture, and
 * the stream goes on at its next key picture. An encoder that fails at a picture is made anew, see {@link EncoderFailure}.
 *
 * <p>While it runs, any thread may steer it: {@link #bitrate}, {@link #frameRate}, {@link #requestKey}, {@link #pause} and
 * {@link #resume} take effect with the rendition's next picture. {@link #add} and {@link #remove} are for the thread that
 * writes, between its calls.
 *
 * <p>One thread may use a transcoder at a time, and a callback must not call it but to steer: both are refused with an
 * {@link IllegalStateException}. All work is done on the calling thread unless {@link Builder#parallel} was asked for.
 */
public final class Transcoder implements AutoCloseable {
    private static final int NEEDS_KEY = 256; // of the native transcoder

    private final Engine engine;
    private ParallelEncoding parallel; // null when the calling thread does it all
    private final PictureAtWork alone = new PictureAtWork(0);
    private final Consumer<? super PicturePlan> planner;
    private final PicturePlan plan = new PicturePlan();
    private final Consumer<? super EncoderFailure> failureListener;
    // Replaced by the thread that is inside, read by any: the array itself does not change.
    private volatile RenditionOutput[] outputs;
    private volatile boolean needsKey;
    private volatile long pictures;
    private volatile long decodeNanoseconds;
    private final Times times;

    private Transcoder(Builder settings, ParallelEncoding.Gate gate) {
        List<Rendition> renditions = settings.renditions;
        engine = Engine.open("Transcoder", () -> MIRVProcessor.open(renditions.size()), handle -> {
            gate.close();
            MIRVProcessor.close(handle);
        });
        planner = settings.planner;
        times = new Times(settings.ticksPerSecond);
        failureListener = settings.failureListener;
        outputs = IntStream.range(0, renditions.size()).mapToObj(i -> new RenditionOutput(i, renditions.get(i), failureListener))
                .toArray(RenditionOutput[]::new);
    }

    /** {@return a builder without renditions} */
    public static Builder builder() {
        return new Builder();
    }

    /**
     * {@return the renditions by their indices, with the settings that were asked for last} One that was removed keeps its
     * place until {@link #add} takes that. Any thread may ask.
     */
    public List<Rendition> renditions() {
        return Stream.of(outputs).map(RenditionOutput::rendition).toList();
    }

    /**
     * Decodes one access unit and encodes the picture that comes out into every rendition. The receiver gets what the
     * renditions made of it, on the calling thread, in the order of the renditions; a rendition whose encoder skipped the
     * picture or failed at it is left out.
     *
     * <p>When the receiver throws, or a rendition's picture finds no Java memory, the other renditions' pictures are
     * delivered all the same, and the first exception or error is thrown when that is done.
     *
     * @param accessUnit one access unit in byte-stream form, see {@link AccessUnit}; not changed and not kept
     * @param time presentation time of its picture, in milliseconds or {@linkplain Builder#timescale other ticks}
     * @param receiver is called during this call only
     * @return what became of the access unit; {@link WriteResult#isPicture} tells whether a picture was decoded
     * @throws IllegalArgumentException if {@code accessUnit} does not begin with a start code
     * @throws IllegalStateException if this transcoder is closed or in use
     * @throws MediaException if a rendition of {@linkplain Rendition#ofSourceSize() the source's size} cannot be encoded in
     *         that size; the others had their pictures, and go on with the next call
     */
    public WriteResult write(byte[] accessUnit, long time, Consumer<? super EncodedPicture> receiver) {
        return write(Part.of(accessUnit), time, receiver);
    }

    /**
     * As {@link #write(byte[], long, Consumer)}, of an access unit in an array that may hold more.
     *
     * @param accessUnit holds one access unit; not changed and not kept
     * @param offset where it begins
     * @param length its bytes
     * @param time as there
     * @param receiver as there
     * @return as there
     * @throws IndexOutOfBoundsException if the array has no such part
     */
    public WriteResult write(byte[] accessUnit, int offset, int length, long time, Consumer<? super EncodedPicture> receiver) {
        return write(Part.of(accessUnit, offset, length), time, receiver);
    }

    /**
     * As {@link #write(byte[], long, Consumer)}, of an access unit in a buffer. A direct buffer's bytes are copied to native
     * memory without an array in between, and looked at in that copy; what frees its memory by other means than the garbage
     * collector's has to wait for the end of this call.
     *
     * @param accessUnit what remains in it is one access unit, and is taken: the position is the limit then, unless the call is
     *        refused. Its bytes are not changed and not kept
     * @param time as there
     * @param receiver as there
     * @return as there
     */
    public WriteResult write(ByteBuffer accessUnit, long time, Consumer<? super EncodedPicture> receiver) {
        return write(Part.of(accessUnit), time, receiver);
    }

    private WriteResult write(Part accessUnit, long time, Consumer<? super EncodedPicture> receiver) {
        Objects.requireNonNull(receiver, "receiver");
        Part unit = AnnexB.checked(accessUnit);
        long handle = engine.enter("write");
        try {
            unit.take();
            int carried = times.write(time, System.nanoTime());
            PictureTranscoded event = new PictureTranscoded();
            event.begin();
            boolean decoded = decoded(event, () -> MIRVProcessor.decodePart(carried, unit.array, unit.direct, unit.from, unit.size, handle));
            int outcome = MIRVProcessor.outcome(handle);
            needsKey = outcome >= NEEDS_KEY;
            Failures failures = new Failures();
            if (decoded) {
                encode(handle, event, receiver, failures);
            }
            deliverEnded(handle, receiver, failures);
            failures.rethrow();
            return WriteResult.of(outcome);
        } finally {
            engine.exit();
        }
    }

    /**
     * Encodes the pictures that the decoder still holds back, as {@link #write} does; to be called at the end of a
     * stream. After that the transcoder takes another stream, which begins with a key picture.
     *
     * @param receiver as for {@code write}
     * @return the number of pictures that were held back
     * @throws IllegalStateException if this transcoder is closed or in use
     * @throws MediaException as for {@code write}
     */
    public int drain(Consumer<? super EncodedPicture> receiver) {
        Objects.requireNonNull(receiver, "receiver");
        long handle = engine.enter("drain");
        try {
            Failures failures = new Failures();
            int drained = 0;
            while (true) {
                PictureTranscoded event = new PictureTranscoded();
                event.begin();
                if (!decoded(event, () -> MIRVProcessor.drain(null, handle))) {
                    needsKey = false; // which the next stream begins with
                    settle();
                    deliverEnded(handle, receiver, failures);
                    failures.rethrow();
                    return drained;
                }
                encode(handle, event, receiver, failures);
                deliverEnded(handle, receiver, failures);
                drained++;
            }
        } finally {
            engine.exit();
        }
    }

    private boolean decoded(PictureTranscoded event, IntSupplier decode) {
        long begin = System.nanoTime();
        boolean decoded = decode.getAsInt() == 1;
        event.decodeTime = System.nanoTime() - begin;
        decodeNanoseconds += event.decodeTime;
        return decoded;
    }

    private void encode(long handle, PictureTranscoded event, Consumer<? super EncodedPicture> receiver, Failures failures) {
        pictures++;
        while (parallel != null && parallel.isFull()) {
            parallel.awaitOldest();
            deliverEnded(handle, receiver, failures);
        }
        PictureAtWork picture = parallel == null ? alone : parallel.next();
        try {
            picture.begin(outputs, event, times, MIRVProcessor.pictureTime(handle));
            plan(picture, handle);
        } catch (Throwable thrown) {
            failures.add(thrown);
            return;
        }
        picture.steer();
        if (parallel != null) {
            parallel.handOver(failures);
            return;
        }
        for (Encoding encoding : picture.encodings()) {
            picture.encode(encoding, handle);
            picture.deliver(encoding, handle, receiver, failures);
        }
        picture.end(handle);
    }

    // Of the pictures under way, those that have ended, in their order.
    private void deliverEnded(long handle, Consumer<? super EncodedPicture> receiver, Failures failures) {
        if (parallel == null) {
            return;
        }
        for (PictureAtWork picture = parallel.ended(); picture != null; picture = parallel.ended()) {
            for (Encoding encoding : picture.encodings()) {
                picture.deliver(encoding, handle, receiver, failures);
            }
            picture.end(handle);
        }
    }

    private void plan(PictureAtWork picture, long handle) {
        if (planner != null) {
            plan.begin(picture, MIRVProcessor.pictureInfo(handle));
            try {
                planner.accept(plan);
            } finally {
                plan.end();
            }
        }
    }

    /**
     * {@return whether a key picture of the source would help} From an access unit that was {@linkplain WriteResult#DAMAGED
     * damaged} or {@linkplain WriteResult#REFUSED refused} until a picture comes out that decoding can begin with. Any
     * thread may ask, a callback too; that is the moment to ask the sender for one, where it listens.
     */
    public boolean needsKey() {
        return needsKey;
    }

    /**
     * Sets another target for a rendition, from its next picture on: without a new encoder, without a key picture and
     * without a lost one. {@link EncodedPicture#rendition} tells which picture carries it. Any thread may call it at any
     * time, callbacks included; of several calls before a picture the last one counts.
     *
     * @param index the rendition's position in {@link #renditions}
     * @param bitsPerSecond 1000 to 288000000
     * @throws IllegalArgumentException if the rate is not allowed
     * @throws IndexOutOfBoundsException if there is no such rendition
     * @throws IllegalStateException if the rendition was removed, or this transcoder is closed
     */
    public void bitrate(int index, int bitsPerSecond) {
        atWork("bitrate", index).ask(rendition -> rendition.bitrate(bitsPerSecond));
    }

    /**
     * Sets the rate that bits are shared out for, as {@link #bitrate} sets the target. A rendition with key pictures every
     * four seconds keeps to that.
     *
     * @param index the rendition's position in {@link #renditions}
     * @param picturesPerSecond 1 to 60, or 0 to follow the pictures' times, see {@link Rendition#frameRate(int)}
     * @throws IllegalArgumentException if the rate is not allowed
     * @throws IndexOutOfBoundsException if there is no such rendition
     * @throws IllegalStateException if the rendition was removed, or this transcoder is closed
     */
    public void frameRate(int index, int picturesPerSecond) {
        atWork("frameRate", index).ask(rendition -> rendition.frameRate(picturesPerSecond));
    }

    /**
     * Makes a rendition's next picture a key picture, from which its key interval is counted; several calls before a picture
     * count as one. {@link EncodedPicture#isAskedFor} tells which picture it is: the next one that is encoded, also when the
     * encoder fails in between. Any thread may call it at any time, callbacks included.
     *
     * @param index the rendition's position in {@link #renditions}
     * @throws IndexOutOfBoundsException if there is no such rendition
     * @throws IllegalStateException if the rendition was removed, or this transcoder is closed
     */
    public void requestKey(int index) {
        atWork("requestKey", index).askForKey();
    }

    /**
     * Encodes nothing more into a rendition, which keeps its encoder; nothing when it is paused already. A
     * {@link PicturePlan} cannot select it meanwhile, and its figures do not count the pictures. Any
     * thread may call it at any time, callbacks included.
     *
     * @param index the rendition's position in {@link #renditions}
     * @throws IndexOutOfBoundsException if there is no such rendition
     * @throws IllegalStateException if the rendition was removed, or this transcoder is closed
     */
    public void pause(int index) {
        atWork("pause", index).pause(true);
    }

    /**
     * Encodes again, from a key picture on; nothing when the rendition is not paused. Any thread may call it at any time,
     * callbacks included.
     *
     * @param index the rendition's position in {@link #renditions}
     * @throws IndexOutOfBoundsException if there is no such rendition
     * @throws IllegalStateException if the rendition was removed, or this transcoder is closed
     */
    public void resume(int index) {
        atWork("resume", index).pause(false);
    }

    /**
     * Adds a rendition, which begins with the next picture. The others and their indices stay as they are.
     *
     * @param rendition its settings
     * @return its index: the lowest that belongs to none, be it that of a rendition that was removed
     * @throws IllegalArgumentException if the bit rate is missing
     * @throws IllegalStateException if this transcoder is closed or in use, or has 65536 renditions
     * @throws MediaException if the encoder refuses the settings, or there is no memory
     */
    public int add(Rendition rendition) {
        String missing = rendition.missing();
        if (missing != null) {
            throw new IllegalArgumentException(rendition.size() + ": " + missing);
        }
        long handle = engine.enter("add");
        try {
            settle();
            RenditionOutput[] before = outputs;
            int index = 0;
            while (index < before.length && !before[index].isRemoved()) {
                index++;
            }
            if (index == Builder.MOST_RENDITIONS) {
                throw new IllegalStateException("this Transcoder has " + index + " renditions, the most there can be");
            }
            if (index == before.length && MIRVProcessor.addOutput(handle) < 0) {
                throw new MediaException("there is no memory for another rendition");
            }
            RenditionOutput output = new RenditionOutput(index, rendition, failureListener);
            RenditionOutput[] after = Arrays.copyOf(before, Math.max(before.length, index + 1));
            after[index] = output;
            try {
                output.start(handle);
            } catch (Throwable failed) {
                output.remove(handle);
                throw failed;
            } finally {
                outputs = after;
            }
            return index;
        } finally {
            engine.exit();
        }
    }

    /**
     * Ends a rendition and frees its encoder. The others and their indices stay as they are.
     *
     * @param index the rendition's position in {@link #renditions}
     * @throws IndexOutOfBoundsException if there is no such rendition
     * @throws IllegalStateException if the rendition was removed before, or this transcoder is closed or in use
     */
    public void remove(int index) {
        long handle = engine.enter("remove");
        try {
            RenditionOutput removed = atWork("remove", index);
            settle();
            removed.remove(handle);
        } finally {
            engine.exit();
        }
    }

    /**
     * {@return the parameter sets of a rendition, known from its first picture on; that picture, and each with which they
     * change, tell them as {@link EncodedPicture#newParameterSets}} Any thread may ask, at any time.
     *
     * @param index the rendition's position in {@link #renditions}
     * @throws IndexOutOfBoundsException if there is no such rendition
     * @throws IllegalStateException if the rendition was removed, or this transcoder is closed
     */
    public Optional<ParameterSets> parameterSets(int index) {
        return Optional.ofNullable(atWork("parameterSets", index).parameterSets());
    }

    private void settle() {
        if (parallel != null) {
            parallel.settle();
        }
    }

    private RenditionOutput atWork(String operation, int index) {
        engine.checkOpen(operation);
        RenditionOutput[] present = outputs;
        if (index < 0 || index >= present.length) {
            throw new IndexOutOfBoundsException("Transcoder." + operation + ": there is no rendition " + index + ", indices are 0 to "
                    + (present.length - 1));
        }
        if (present[index].isRemoved()) {
            throw new IllegalStateException("Transcoder." + operation + ": rendition " + index + " was removed");
        }
        return present[index];
    }

    /**
     * {@return what this transcoder has done so far} Any thread may ask, at any time, also after {@link #close}; what a
     * call under way has done is counted in part.
     */
    public Statistics statistics() {
        return new Statistics(pictures, Duration.ofNanos(decodeNanoseconds),
                Stream.of(outputs).map(RenditionOutput::statistics).toList());
    }

    /**
     * Frees the native engines; nothing when that was done before. Pictures that were not drained are lost.
     * When another thread uses this transcoder, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this transcoder
     */
    @Override
    public void close() {
        engine.close();
    }

    /**
     * What a transcoder has done.
     *
     * @param pictures decoded
     * @param decodeTime spent in decoding, by the clock
     * @param renditions what each rendition did, in their order
     */
    public record Statistics(long pictures, Duration decodeTime, List<RenditionStatistics> renditions) {
    }

    /**
     * What one rendition has done.
     *
     * @param rendition its settings
     * @param pictures encoded
     * @param skipped decoded, and skipped by the encoder
     * @param failed decoded, and lost because the encoder failed, see {@link EncoderFailure}
     * @param bytes of all access units
     * @param encodeTime spent in scaling and encoding, by the clock
     */
    public record RenditionStatistics(Rendition rendition, long pictures, long skipped, long failed, long bytes,
                                      Duration encodeTime) {
    }

    /** Collects a transcoder's settings. */
    public static final class Builder {
        private static final int MOST_RENDITIONS = 65_536;
        private static final int MOST_AHEAD = 64;

        private final List<Rendition> renditions = new ArrayList<>();
        private Executor executor;
        private int lookahead;
        private Consumer<? super PicturePlan> planner;
        private int ticksPerSecond = Times.MILLISECONDS;
        private Consumer<? super EncoderFailure> failureListener;

        private Builder() {
        }

        /**
         * Adds a rendition.
         *
         * @param rendition its settings
         * @return this builder
         */
        public Builder rendition(Rendition rendition) {
            renditions.add(Objects.requireNonNull(rendition, "rendition"));
            return this;
        }

        /**
         * Adds renditions.
         *
         * @param settings those of each
         * @return this builder
         */
        public Builder renditions(Iterable<Rendition> settings) {
            settings.forEach(this::rendition);
            return this;
        }

        /**
         * Leaves pictures out of renditions, and chooses key pictures beyond those of their key intervals.
         *
         * @param choice is asked once for each decoded picture, in display order, on the thread that calls {@link #write} or
         *        {@link #drain}; what it throws ends that call before the picture is encoded
         * @return this builder
         */
        public Builder plan(Consumer<? super PicturePlan> choice) {
            planner = Objects.requireNonNull(choice, "choice");
            return this;
        }

        /**
         * Sets what times are counted in. Whatever it is, each picture has the very time that its access unit was written
         * with; rate control goes by whole milliseconds.
         *
         * @param unitsPerSecond 1 to 1000000000; 1000, for milliseconds, unless it is set here
         * @return this builder
         */
        public Builder timescale(int unitsPerSecond) {
            ticksPerSecond = Settings.timescale(unitsPerSecond);
            return this;
        }

        /**
         * Tells of pictures that an encoder failed at.
         *
         * @param listener is called during {@link #write} and {@link #drain}, on the calling thread, before the receiver gets
         *        the rendition's picture, if there is one all the same; what it throws is treated as the receiver's
         *        exceptions are
         * @return this builder
         */
        public Builder onFailure(Consumer<? super EncoderFailure> listener) {
            failureListener = Objects.requireNonNull(listener, "listener");
            return this;
        }

        /**
         * Encodes a picture's renditions at the same time. The calling thread takes part, so that a busy executor, or one
         * that refuses tasks, only makes a call slower. Anything else that it throws, {@code OutOfMemoryError} over a thread
         * for instance, is thrown by the call when every rendition has had its picture, or has it under way. The result is the
         * same, byte by byte, and the receiver is still called on the calling thread alone.
         *
         * @param tasks runs at most as many tasks at a time as there are renditions; one less without {@link #lookahead}
         * @return this builder
         */
        public Builder parallel(Executor tasks) {
            executor = Objects.requireNonNull(tasks, "tasks");
            return this;
        }

        /**
         * Lets decoding run ahead of the encoders: {@link #write} returns when its picture is decoded, and waits only where
         * this many pictures are under way; it encodes then. Renditions get to different pictures, so that the cores have work
         * while the largest one is still at the first. The bytes are the same.
         *
         * <p>Pictures come out in their order still, each in the first call that finds all its renditions done, which is up to
         * this many pictures later, or {@link #drain}; what the receiver throws, and a {@link MediaException} over a picture, come
         * in that call. A {@link WriteResult} and {@link #plan} are about the access unit that is being written, as ever. What is
         * asked of a rendition takes effect with the next picture that is decoded. {@link #add} and {@link #remove} wait for the
         * pictures under way, which come out in the next call; {@link #close} waits for those that are being encoded at the moment.
         *
         * @param pictures 0 to 64; each takes the memory of a decoded one, 3 MB at 1920x1080. With 0, which holds unless it is
         *        set here, each call encodes what it has decoded. Two for each thread fill the cores
         * @return this builder
         */
        public Builder lookahead(int pictures) {
            lookahead = Settings.check("lookahead", pictures, 0, MOST_AHEAD, "pictures");
            return this;
        }

        /**
         * Makes the transcoder and opens the encoders.
         *
         * @return the transcoder, to be closed
         * @throws IllegalArgumentException if there is no rendition, or one lacks its bit rate; the message lists all that
         *         is wrong
         * @throws MediaException if the native library or OpenH264 is missing, with the places tried, or an encoder refuses
         *         its settings
         */
        public Transcoder open() {
            check();
            Natives.load();
            OpenH264.load();
            ParallelEncoding.Gate gate = new ParallelEncoding.Gate();
            Transcoder transcoder = new Transcoder(this, gate);
            try {
                transcoder.start(this, gate);
                return transcoder;
            } catch (Throwable failed) {
                transcoder.close();
                throw failed;
            }
        }

        private void check() {
            StringJoiner wrong = new StringJoiner("; ");
            if (renditions.isEmpty() || renditions.size() > MOST_RENDITIONS) {
                wrong.add("there are " + renditions.size() + " renditions, allowed are 1 to " + MOST_RENDITIONS);
            }
            for (int i = 0; i < renditions.size(); i++) {
                String missing = renditions.get(i).missing();
                if (missing != null) {
                    wrong.add("rendition " + (i + 1) + " (" + renditions.get(i).size() + "): " + missing);
                }
            }
            if (lookahead > 0 && executor == null) {
                wrong.add("lookahead is " + lookahead + ", which takes threads: parallel has to name them");
            }
            if (wrong.length() > 0) {
                throw new IllegalArgumentException(wrong.toString());
            }
        }
    }

    private void start(Builder settings, ParallelEncoding.Gate gate) {
        long handle = engine.enter("open");
        try {
            if (settings.executor != null) {
                if (MIRVProcessor.makePlaces(settings.lookahead, handle) == 0) {
                    throw new MediaException("there is no memory to decode ahead");
                }
                parallel = new ParallelEncoding(settings.executor, settings.lookahead, handle, gate);
            }
            for (RenditionOutput output : outputs) {
                output.apply(handle);
            }
            MIRVProcessor.start(handle);
            for (RenditionOutput output : outputs) {
                output.checkOpened(handle);
            }
        } finally {
            engine.exit();
        }
    }
}
