package com.kelvane.media;

import com.kelvane.media.transform.codec.AVCProcessor;
import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.function.Consumer;
import java.util.function.IntSupplier;

/**
 * Has a {@link ProcessingModule} work on an H.264 stream: each access unit is decoded, the module changes the picture or
 * drops it, and what it keeps is encoded again as by a {@link VideoEncoder}. In pass-through mode the module is given the
 * access units themselves, and nothing is decoded or encoded.
 * <pre>{@code
 * ProcessingModule mosaic = ProcessingModule.load(Path.of("/opt/modules/mosaic.so"));
 * try (Pipeline pipeline = Pipeline.builder().module(mosaic).setting("region", "200,200,400,300")
 *         .frameRate(30).bitrate(2_000_000).open()) {
 *     for (AccessUnit unit : source) {
 *         pipeline.write(unit.bytes(), unit.time()).ifPresent(this::send);
 *     }
 *     pipeline.drain(this::send);
 * }
 * }</pre>
 *
 * <p>Pictures come out in display order. After a picture that it failed at the encoder is made anew, see
 * {@link EncoderFailure}. One thread may use a pipeline at a time: anything else is refused with an
 * {@link IllegalStateException}. A module runs on the calling thread; what it throws is reported to {@link NativeLog}, and the
 * picture counts as dropped.
 */
public final class Pipeline implements AutoCloseable {
    private static final int UNTOUCHED = -1;
    private static final int PASS_THROUGH_MODE = 1;
    private static final int DECODING_MODE = 3;

    private final Engine engine;
    private final ProcessingModule module;
    private final boolean passThrough;
    private final Recovery recovery;
    private final Steering steering = new Steering();
    private final byte[] number = new byte[Integer.BYTES];
    private final ByteBuffer value = ByteBuffer.wrap(number);
    private final Times times;
    private volatile ParameterSets parameterSets;
    private volatile long sourceTime;
    private volatile long pictures;
    private volatile long dropped;
    private volatile long skipped;
    private volatile long failed;
    private volatile long bytes;
    private volatile long nanoseconds;

    private Pipeline(Builder settings) {
        module = settings.module;
        passThrough = settings.passThrough;
        times = new Times(settings.ticksPerSecond);
        recovery = new Recovery("Pipeline", 0, settings.failureListener);
        engine = Engine.open("Pipeline", () -> AVCProcessor.open(settings.frameRate, settings.bitrate,
                passThrough ? PASS_THROUGH_MODE : DECODING_MODE, settings.options[0], settings.options[1],
                settings.options[2]), AVCProcessor::close);
    }

    /** {@return a builder of a pipeline without a module, at 30 pictures per second and 2000000 bits per second} */
    public static Builder builder() {
        return new Builder();
    }

    /**
     * Processes one access unit.
     *
     * @param accessUnit one access unit in byte-stream form, see {@link AccessUnit}; not changed and not kept
     * @param time presentation time of its picture, in milliseconds or {@linkplain Builder#timescale other ticks}
     * @return the access unit that came out, with its picture's own time as the module left it; empty when no picture was
     *         decoded, the module dropped it or it could not be encoded, which {@link #statistics} tells apart
     * @throws IllegalArgumentException if {@code accessUnit} does not begin with a start code; not in pass-through mode
     * @throws IllegalStateException if this pipeline is closed or in use
     */
    public Optional<AccessUnit> write(byte[] accessUnit, long time) {
        return write(Part.of(accessUnit), time);
    }

    /**
     * As {@link #write(byte[], long)}, of an access unit in an array that may hold more.
     *
     * @param accessUnit holds one access unit; not changed and not kept
     * @param offset where it begins
     * @param length its bytes
     * @param time as there
     * @return as there
     * @throws IndexOutOfBoundsException if the array has no such part
     */
    public Optional<AccessUnit> write(byte[] accessUnit, int offset, int length, long time) {
        return write(Part.of(accessUnit, offset, length), time);
    }

    /**
     * As {@link #write(byte[], long)}, of an access unit in a buffer, see {@link Transcoder#write(ByteBuffer, long, Consumer)}.
     *
     * @param accessUnit what remains in it is one access unit, and is taken; its bytes are not changed and not kept
     * @param time as there
     * @return as there
     */
    public Optional<AccessUnit> write(ByteBuffer accessUnit, long time) {
        return write(Part.of(accessUnit), time);
    }

    private Optional<AccessUnit> write(Part accessUnit, long time) {
        Part unit = passThrough ? accessUnit : AnnexB.checked(accessUnit);
        long handle = engine.enter("write");
        try {
            unit.take();
            int carried = times.write(time, 0);
            work(handle, () -> AVCProcessor.writePart(carried, unit.array, unit.direct, unit.from, unit.size, number, handle));
            Optional<AccessUnit> out = Optional.ofNullable(pending(handle, carried));
            tellFailure(handle);
            return out;
        } finally {
            engine.exit();
        }
    }

    /**
     * Processes the pictures that the decoder still holds back; to be called at the end of a stream. After that the
     * pipeline takes another stream, which begins with a key picture.
     *
     * @param receiver gets what {@code write} would return, on the calling thread
     * @return the number of access units that came out
     * @throws IllegalStateException if this pipeline is closed or in use
     */
    public int drain(Consumer<? super AccessUnit> receiver) {
        Objects.requireNonNull(receiver, "receiver");
        long handle = engine.enter("drain");
        try {
            Failures failures = new Failures();
            int drained = 0;
            while (work(handle, () -> AVCProcessor.drain(number, handle))) {
                AccessUnit unit = pending(handle, AVCProcessor.pictureTime(handle));
                failures.of(() -> tellFailure(handle));
                if (unit != null) {
                    failures.of(() -> receiver.accept(unit));
                    drained++;
                }
            }
            failures.rethrow();
            return drained;
        } finally {
            engine.exit();
        }
    }

    /**
     * Hands the module one setting, at any time.
     *
     * @param key for the module
     * @param setting its value
     * @throws IllegalArgumentException if the module refuses it
     * @throws IllegalStateException if this pipeline has no module, is closed or in use
     */
    public void set(String key, String setting) {
        Objects.requireNonNull(key, "key");
        Objects.requireNonNull(setting, "setting");
        if (module == null) {
            throw new IllegalStateException("this Pipeline has no module that could take the setting " + key);
        }
        long handle = engine.enter("set");
        try {
            if (AVCProcessor.apply(Integer.toUnsignedLong(module.guid()), key, setting, handle) <= 0) {
                throw new IllegalArgumentException(module + " refused the setting " + key + "=" + setting);
            }
        } finally {
            engine.exit();
        }
    }

    /**
     * {@return the parameter sets of the stream that comes out, known from its first picture on} It is the same object until they change,
     * as they do with its size; {@link AccessUnit#parameterSets} has those of a key picture. Any thread may ask, at any
     * time.
     */
    public Optional<ParameterSets> parameterSets() {
        return Optional.ofNullable(parameterSets);
    }

    /**
     * Makes the next picture that the module keeps a key picture; several calls before it count as one. Any thread may call
     * it at any time.
     *
     * @throws IllegalStateException if this pipeline is closed, or in pass-through mode, where nothing is encoded
     */
    public void requestKey() {
        checkEncoding("requestKey");
        steering.requestKey();
    }

    /**
     * Sets another target, from the next picture on, as {@link VideoEncoder#bitrate} does: with a key picture, and without a
     * lost one. Any thread may call it at any time; of several calls before a picture the last one counts.
     *
     * @param bitsPerSecond 1000 to 288000000
     * @throws IllegalArgumentException if the rate is not allowed
     * @throws IllegalStateException if this pipeline is closed, or in pass-through mode, where nothing is encoded
     */
    public void bitrate(int bitsPerSecond) {
        checkEncoding("bitrate");
        steering.bitrate(Settings.bitrate(bitsPerSecond));
    }

    private void checkEncoding(String operation) {
        engine.checkOpen(operation);
        if (passThrough) {
            throw new IllegalStateException("Pipeline." + operation + ": nothing is encoded in pass-through mode");
        }
    }

    // Returns whether there was a picture; `value` then holds the bytes that are pending, or UNTOUCHED when the module
    // dropped it.
    private boolean work(long handle, IntSupplier call) {
        value.putInt(0, UNTOUCHED);
        if (steering.isAsked()) {
            steering.handOver(bits -> AVCProcessor.setBitrate(bits, handle) == 1, () -> AVCProcessor.requestKey(handle));
        }
        long begin = System.nanoTime();
        int result = call.getAsInt();
        int failure = passThrough || value.getInt(0) > 0 ? 0 : AVCProcessor.failure(handle);
        if (failure != 0 && recovery.recover(failure, () -> AVCProcessor.renew(handle) == 1, () -> retry(handle))) {
            failure = 0;
        }
        nanoseconds += System.nanoTime() - begin;
        int size = value.getInt(0);
        if (size == UNTOUCHED && result != 1) {
            return false;
        }
        pictures++;
        if (failure != 0) {
            failed++;
        } else if (size == UNTOUCHED) {
            dropped++;
        } else {
            recovery.succeeded();
            if (size == 0 && !passThrough) {
                skipped++;
            }
        }
        return true;
    }

    private int retry(long handle) {
        AVCProcessor.retry(number, handle);
        return AVCProcessor.failure(handle);
    }

    private void tellFailure(long handle) {
        long time = ownTime(handle);
        recovery.tell(handle, time, times.milliseconds(time));
    }

    private long ownTime(long handle) {
        return passThrough ? times.last() : times.of(AVCProcessor.pictureTime(handle));
    }

    // The module was given the time `given`, which with reordering need not be the picture's own; what it made of it moves
    // the picture's own time as far.
    private AccessUnit pending(long handle, long given) {
        int size = value.getInt(0);
        if (size <= 0) {
            return null;
        }
        byte[] data = new byte[size];
        AVCProcessor.read(number, data, handle);
        bytes += size;
        parameterSets = ParameterSets.from(parameterSets, data, size);
        int shift = module == null ? 0 : value.getInt(0) - (int) given;
        long own = ownTime(handle);
        sourceTime = own;
        return new AccessUnit(data, own + times.ticks(shift));
    }

    /**
     * {@return the time of the picture that came out last, as it was before the module moved it} During a
     * callback of {@link #drain} that is the picture at hand.
     */
    public long sourceTime() {
        return sourceTime;
    }

    /** {@return what this pipeline has done so far} Any thread may ask, at any time, also after {@link #close}. */
    public Statistics statistics() {
        return new Statistics(pictures, dropped, skipped, failed, bytes, Duration.ofNanos(nanoseconds));
    }

    /**
     * Frees the native engine and the module's object; nothing when that was done before.
     * When another thread uses this pipeline, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this pipeline
     */
    @Override
    public void close() {
        engine.close();
    }

    /**
     * What a pipeline has done.
     *
     * @param pictures decoded or, in pass-through mode, access units written
     * @param dropped of these, by the module
     * @param skipped of these, by the encoder
     * @param failed of these, those lost because the encoder failed, see {@link EncoderFailure}
     * @param bytes of all access units that came out
     * @param time spent in decoder, module and encoder, by the clock
     */
    public record Statistics(long pictures, long dropped, long skipped, long failed, long bytes, Duration time) {
    }

    /** Collects a pipeline's settings. */
    public static final class Builder {
        private record Setting(String key, String value) {
        }

        private final List<Setting> moduleSettings = new ArrayList<>();
        private ProcessingModule module;
        private boolean passThrough;
        private int frameRate = 30;
        private int bitrate = 2_000_000;
        private Consumer<? super EncoderFailure> failureListener;
        private final int[] options = {1, 0, 1};
        private int ticksPerSecond = Times.MILLISECONDS;

        private Builder() {
        }

        /**
         * The module; without one every picture is encoded again as it is.
         *
         * @param processingModule a loaded module
         * @return this builder
         */
        public Builder module(ProcessingModule processingModule) {
            module = Objects.requireNonNull(processingModule, "processingModule");
            return this;
        }

        /**
         * A setting for the module.
         *
         * @param key for the module
         * @param value for the module
         * @return this builder
         */
        public Builder setting(String key, String value) {
            moduleSettings.add(new Setting(Objects.requireNonNull(key, "key"), Objects.requireNonNull(value, "value")));
            return this;
        }

        /**
         * The rate that the encoder is set up for, which does not follow the pictures' times, as that of a
         * {@link VideoEncoder}.
         *
         * @param picturesPerSecond 1 to 60; 30 unless it is set here
         * @return this builder
         */
        public Builder frameRate(int picturesPerSecond) {
            frameRate = Settings.frameRate(picturesPerSecond);
            return this;
        }

        /**
         * The encoder's target; a hint, as for a {@link VideoEncoder}. It need not be given, as nothing is encoded in
         * pass-through mode.
         *
         * @param bitsPerSecond 1000 to 288000000; 2000000 unless it is set here
         * @return this builder
         */
        public Builder bitrate(int bitsPerSecond) {
            bitrate = Settings.bitrate(bitsPerSecond);
            return this;
        }

        /**
         * Three numbers that the module is given when it is opened, 1, 0 and 1 unless set here.
         *
         * @param first 0 to 255
         * @param second 0 to 255
         * @param third 0 to 255
         * @return this builder
         */
        public Builder options(int first, int second, int third) {
            options[0] = Settings.check("first option", first, 0, 255, "");
            options[1] = Settings.check("second option", second, 0, 255, "");
            options[2] = Settings.check("third option", third, 0, 255, "");
            return this;
        }

        /**
         * Tells of pictures that the encoder failed at.
         *
         * @param listener is called during {@link #write} and {@link #drain}, which throw what it throws; the access unit
         *        of that picture, if there is one all the same, is lost in {@code write} then
         * @return this builder
         */
        public Builder onFailure(Consumer<? super EncoderFailure> listener) {
            failureListener = Objects.requireNonNull(listener, "listener");
            return this;
        }

        /**
         * Sets what times are counted in. Modules count in whole milliseconds: what one moves a picture by is added to the
         * picture's very own time.
         *
         * @param unitsPerSecond 1 to 1000000000; 1000, for milliseconds, unless it is set here
         * @return this builder
         */
        public Builder timescale(int unitsPerSecond) {
            ticksPerSecond = Settings.timescale(unitsPerSecond);
            return this;
        }

        /**
         * Gives the module the access units themselves.
         *
         * @return this builder
         */
        public Builder passThrough() {
            passThrough = true;
            return this;
        }

        /**
         * Makes the pipeline, attaches the module and hands it its settings.
         *
         * @return the pipeline, to be closed
         * @throws IllegalArgumentException if there are settings without a module, or the module refuses one
         * @throws MediaException if the native library is missing, with the places tried, or the module makes no object for
         *         this pipeline
         */
        public Pipeline open() {
            if (module == null && !moduleSettings.isEmpty()) {
                throw new IllegalArgumentException("there is no module that could take the setting "
                        + moduleSettings.get(0).key);
            }
            Natives.load();
            Pipeline pipeline = new Pipeline(this);
            try {
                if (module != null) {
                    pipeline.attach();
                }
                moduleSettings.forEach(setting -> pipeline.set(setting.key, setting.value));
                return pipeline;
            } catch (Throwable failed) {
                pipeline.close();
                throw failed;
            }
        }
    }

    private void attach() {
        long handle = engine.enter("open");
        try {
            AVCProcessor.brew(module.guid(), handle);
            if (AVCProcessor.attached(handle) != 1) {
                throw new MediaException(module + " made no object for this pipeline; what it printed, or NativeLog, may tell why");
            }
        } finally {
            engine.exit();
        }
    }
}
