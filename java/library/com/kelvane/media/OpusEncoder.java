package com.kelvane.media;

import com.kelvane.media.transform.codec.NOpusEncoder;
import java.util.Arrays;

/**
 * Encodes sound at 48000 Hz to Opus packets of 20 ms: music, full bandwidth, constant bit rate.
 * <pre>{@code
 * try (OpusEncoder encoder = OpusEncoder.builder().channels(2).bitrate(96_000).open()) {
 *     for (byte[] frame : frames) {                  // encoder.frameSize() bytes each
 *         send(encoder.encode(frame));
 *     }
 * }
 * }</pre>
 *
 * <p>The encoder lags behind by {@value #LEAD_IN} samples. One thread may use an encoder at a time: anything else is refused
 * with an {@link IllegalStateException}.
 */
public final class OpusEncoder implements AutoCloseable {
    /** Samples of each channel in a packet: 20 ms. */
    public static final int SAMPLES_PER_FRAME = 960;

    /** Samples of each channel that precede the sound when it is decoded. */
    public static final int LEAD_IN = 312;

    private static final int FRAME_DURATION = 20; // ms
    private static final int LONGEST_PACKET = 3828; // bytes

    private final Engine engine;
    private final int frameSize;
    private final byte[] output = new byte[LONGEST_PACKET];

    private OpusEncoder(Builder settings) {
        frameSize = SAMPLES_PER_FRAME * Pcm.BYTES_PER_SAMPLE * settings.channels;
        engine = Engine.open("OpusEncoder", () -> NOpusEncoder.open(settings.channels, settings.bitrate, FRAME_DURATION),
                NOpusEncoder::close);
    }

    /** {@return a builder for stereo at 96000 bits per second} */
    public static Builder builder() {
        return new Builder();
    }

    /** {@return the bytes that {@link #encode} takes} */
    public int frameSize() {
        return frameSize;
    }

    /**
     * Encodes one frame.
     *
     * @param pcm 960 samples for each channel, {@link #frameSize} bytes as in {@link Pcm}; not changed and not kept
     * @return the packet
     * @throws IllegalArgumentException if {@code pcm} has another length
     * @throws IllegalStateException if this encoder is closed or in use
     * @throws MediaException if libopus fails
     */
    public byte[] encode(byte[] pcm) {
        if (pcm.length != frameSize) {
            throw new IllegalArgumentException("a frame has " + frameSize + " bytes, not " + pcm.length);
        }
        long handle = engine.enter("encode");
        try {
            int size = NOpusEncoder.encode(pcm, output, handle);
            if (size <= 1) {
                throw new MediaException("libopus could not encode a frame");
            }
            return Arrays.copyOf(output, size);
        } finally {
            engine.exit();
        }
    }

    /**
     * Frees the native engine; nothing when that was done before.
     * When another thread uses this encoder, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this encoder
     */
    @Override
    public void close() {
        engine.close();
    }

    /** Collects an encoder's settings. */
    public static final class Builder {
        private static final int SMALLEST_BITRATE = 6000;
        private static final int LARGEST_BITRATE = 510_000;

        private int channels = 2;
        private int bitrate = 96_000;

        private Builder() {
        }

        /**
         * The channels of the sound.
         *
         * @param count 1 or 2
         * @return this builder
         */
        public Builder channels(int count) {
            channels = Settings.check("channels", count, 1, 2, "channels");
            return this;
        }

        /**
         * The bit rate.
         *
         * @param bitsPerSecond 6000 to 510000
         * @return this builder
         */
        public Builder bitrate(int bitsPerSecond) {
            bitrate = Settings.check("bitrate", bitsPerSecond, SMALLEST_BITRATE, LARGEST_BITRATE, "bits per second");
            return this;
        }

        /**
         * Makes the encoder.
         *
         * @return the encoder, to be closed
         * @throws MediaException if the native library is missing, with the places tried, or libopus makes no encoder
         */
        public OpusEncoder open() {
            Natives.load();
            return new OpusEncoder(this);
        }
    }
}
