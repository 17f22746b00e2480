package com.kelvane.media;

import com.kelvane.media.transform.codec.PcmResampler;
import java.util.Arrays;
import java.util.Objects;
import java.util.function.Consumer;

/**
 * Changes the sampling rate and the channels of sound, and cuts it into frames for an encoder: AAC at 44100 Hz for Opus.
 * <pre>{@code
 * try (Resampler resampler = Resampler.builder().from(44_100, 2).to(48_000, 2).frame(encoder.samplesPerFrame()).open()) {
 *     decoder.decode(unit).ifPresent(pcm -> resampler.convert(pcm, frame -> send(encoder.encode(frame.bytes()))));
 *     resampler.drain(frame -> send(encoder.encode(frame.bytes())));
 * }
 * }</pre>
 *
 * <p>The result begins with the sound's first sample and is as long as the sound, to less than one sample over any length; the
 * filter waits for about 16 samples of the slower rate. One channel becomes two alike, two become their mean. One thread may
 * use a resampler at a time: anything else is refused with an {@link IllegalStateException}.
 */
public final class Resampler implements AutoCloseable {
    private final Engine engine;
    private final Format from;
    private final Format to;
    private final byte[] frame; // null where results are handed out as they come
    private int filled;         // bytes of it
    private byte[] output = {};

    private Resampler(Builder settings) {
        from = settings.from;
        to = settings.to;
        frame = settings.frame == 0 ? null : new byte[settings.frame * to.bytes()];
        engine = Engine.open("Resampler", () -> PcmResampler.open(from.channels, from.sampleRate, to.channels, to.sampleRate),
                PcmResampler::close);
    }

    /** {@return a builder for stereo at 48000 Hz, to and from} */
    public static Builder builder() {
        return new Builder();
    }

    /**
     * Converts sound that follows on the sound before it.
     *
     * @param sound of any length, with the rate and the channels that were announced; not changed and not kept
     * @param receiver gets what comes out, each its own, on the calling thread: whole frames if such were asked for
     * @throws IllegalArgumentException if the sound has another rate or other channels, or its result is longer than an array
     * @throws IllegalStateException if this resampler is closed or in use
     */
    public void convert(Pcm sound, Consumer<? super Pcm> receiver) {
        Objects.requireNonNull(receiver, "receiver");
        if (sound.sampleRate() != from.sampleRate || sound.channels() != from.channels) {
            throw new IllegalArgumentException("the sound is " + new Format(sound.sampleRate(), sound.channels())
                    + ", this resampler takes " + from);
        }
        long handle = engine.enter("convert");
        try {
            int samples = PcmResampler.convert(sound.bytes(), output, handle);
            if (needsRoom(samples)) {
                samples = PcmResampler.convert(sound.bytes(), output, handle);
            }
            Failures failures = new Failures();
            deliver(samples, receiver, failures);
            failures.rethrow();
        } finally {
            engine.exit();
        }
    }

    /**
     * Hands out what is left, a frame being filled up with silence; to be called at the end. Other sound may follow.
     *
     * @param receiver as for {@link #convert}
     * @throws IllegalStateException if this resampler is closed or in use
     */
    public void drain(Consumer<? super Pcm> receiver) {
        Objects.requireNonNull(receiver, "receiver");
        long handle = engine.enter("drain");
        try {
            int samples = PcmResampler.drain(output, handle);
            if (needsRoom(samples)) {
                samples = PcmResampler.drain(output, handle);
            }
            Failures failures = new Failures();
            deliver(samples, receiver, failures);
            if (filled > 0) {
                handOut(Arrays.copyOf(frame, filled), frame.length, receiver, failures);
                filled = 0;
            }
            failures.rethrow();
        } finally {
            engine.exit();
        }
    }

    private boolean needsRoom(int result) {
        if (result == Integer.MIN_VALUE) {
            throw new IllegalArgumentException("the result is longer than an array: convert the sound in pieces");
        }
        output = result < 0 ? new byte[-result] : output;
        return result < 0;
    }

    private void deliver(int samples, Consumer<? super Pcm> receiver, Failures failures) {
        int size = samples * to.bytes();
        if (frame == null) {
            if (size > 0) {
                handOut(output, size, receiver, failures);
            }
            return;
        }
        for (int at = 0; at < size;) {
            int taken = Math.min(size - at, frame.length - filled);
            System.arraycopy(output, at, frame, filled, taken);
            at += taken;
            filled += taken;
            if (filled == frame.length) {
                filled = 0;
                handOut(frame, frame.length, receiver, failures);
            }
        }
    }

    private void handOut(byte[] bytes, int size, Consumer<? super Pcm> receiver, Failures failures) {
        failures.of(() -> receiver.accept(new Pcm(to.channels, to.sampleRate, Arrays.copyOf(bytes, size))));
    }

    /**
     * Frees the native engine; nothing when that was done before.
     * When another thread uses this resampler, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this resampler
     */
    @Override
    public void close() {
        engine.close();
    }

    private record Format(int sampleRate, int channels) {
        private static final int SLOWEST = 7350;
        private static final int FASTEST = 192_000;

        static Format checked(int hertz, int count) {
            return new Format(Settings.check("sampleRate", hertz, SLOWEST, FASTEST, "Hz"),
                    Settings.check("channels", count, 1, 2, "channels"));
        }

        int bytes() {
            return Pcm.BYTES_PER_SAMPLE * channels;
        }

        @Override
        public String toString() {
            return sampleRate + " Hz with " + channels + (channels == 1 ? " channel" : " channels");
        }
    }

    /** Collects a resampler's settings. */
    public static final class Builder {
        private static final int LONGEST_FRAME = 192_000; // a second of the fastest rate

        private Format from = new Format(48_000, 2);
        private Format to = from;
        private int frame;

        private Builder() {
        }

        /**
         * The sound that comes in.
         *
         * @param sampleRate 7350 to 192000 Hz
         * @param channels 1 or 2
         * @return this builder
         */
        public Builder from(int sampleRate, int channels) {
            from = Format.checked(sampleRate, channels);
            return this;
        }

        /**
         * The sound that comes out.
         *
         * @param sampleRate 7350 to 192000 Hz
         * @param channels 1 or 2
         * @return this builder
         */
        public Builder to(int sampleRate, int channels) {
            to = Format.checked(sampleRate, channels);
            return this;
        }

        /**
         * Has the result handed out in frames of one length; without this it is as long as it happens to be.
         *
         * @param samples of each channel, 1 to 192000
         * @return this builder
         */
        public Builder frame(int samples) {
            frame = Settings.check("frame", samples, 1, LONGEST_FRAME, "samples");
            return this;
        }

        /**
         * Makes the resampler.
         *
         * @return the resampler, to be closed
         * @throws MediaException if the native library is missing, with the places tried, or there is no memory
         */
        public Resampler open() {
            Natives.load();
            return new Resampler(this);
        }
    }
}
