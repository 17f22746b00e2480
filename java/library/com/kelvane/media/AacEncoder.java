package com.kelvane.media;

import com.kelvane.media.transform.codec.AACEncoder;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.function.Consumer;

/**
 * Encodes sound of one or two channels to raw AAC-LC access units.
 * <pre>{@code
 * try (AacEncoder encoder = AacEncoder.builder().channels(2).sampleRate(44_100).open()) {
 *     for (byte[] block : blocks) {                  // encoder.blockSize() bytes each
 *         encoder.encode(block).ifPresent(this::send);
 *     }
 *     encoder.drain(this::send);
 * }
 * }</pre>
 *
 * <p>The encoder lags behind by one block: the first access unit decodes to {@value #LEAD_IN} samples that precede the
 * sound. One thread may use an encoder at a time: anything else is refused with an {@link IllegalStateException}.
 */
public final class AacEncoder implements AutoCloseable {
    /** Samples of each channel that an access unit holds. */
    public static final int SAMPLES_PER_BLOCK = 1024;

    /** Samples of each channel that precede the sound when it is decoded. */
    public static final int LEAD_IN = 1024;

    /** The sampling rates in Hz that there are, in the order of AAC's index. */
    public static final List<Integer> SAMPLE_RATES =
            List.of(96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350);

    // One for the encoder's look-ahead, one for the second half of the last block's transform.
    private static final int SILENT_BLOCKS_AT_END = 2;

    private final Engine engine;
    private final int blockSize;
    private final AudioConfiguration configuration;
    private final byte[] info = new byte[6];
    private final byte[] output;

    private AacEncoder(Builder settings) {
        blockSize = SAMPLES_PER_BLOCK * Pcm.BYTES_PER_SAMPLE * settings.channels;
        output = new byte[blockSize];
        configuration = AudioConfiguration.of(settings.sampleRate, settings.channels);
        engine = Engine.open("AacEncoder", () -> settings.bitrate == 0
                ? AACEncoder.open(settings.channels, settings.sampleRate)
                : AACEncoder.openAt(settings.channels, settings.sampleRate, settings.bitrate), AACEncoder::close);
    }

    /** {@return a builder for stereo at 48000 Hz and 64000 bits per second} */
    public static Builder builder() {
        return new Builder();
    }

    /** {@return what decoders and containers are to know first: the AudioSpecificConfig of AAC-LC, two bytes} */
    public AudioConfiguration configuration() {
        return configuration;
    }

    /** {@return the bytes that {@link #encode} takes} */
    public int blockSize() {
        return blockSize;
    }

    /**
     * Encodes one block.
     *
     * @param pcm 1024 samples for each channel, {@link #blockSize} bytes as in {@link Pcm}; not changed and not kept
     * @return the access unit that came out, which is that of the block before; empty for the first block
     * @throws IllegalArgumentException if {@code pcm} has another length
     * @throws IllegalStateException if this encoder is closed or in use
     */
    public Optional<byte[]> encode(byte[] pcm) {
        if (pcm.length != blockSize) {
            throw new IllegalArgumentException("a block has " + blockSize + " bytes, not " + pcm.length);
        }
        long handle = engine.enter("encode");
        try {
            return encode(pcm, handle);
        } finally {
            engine.exit();
        }
    }

    private Optional<byte[]> encode(byte[] pcm, long handle) {
        int size = AACEncoder.encode(pcm, info, output, handle);
        return size > 0 ? Optional.of(Arrays.copyOf(output, size)) : Optional.empty();
    }

    /**
     * Hands out what the encoder still holds, by encoding silence behind the sound; to be called at the end.
     *
     * @param receiver gets each access unit, on the calling thread
     * @throws IllegalStateException if this encoder is closed or in use
     */
    public void drain(Consumer<? super byte[]> receiver) {
        Objects.requireNonNull(receiver, "receiver");
        long handle = engine.enter("drain");
        try {
            Failures failures = new Failures();
            byte[] silence = new byte[blockSize];
            for (int i = 0; i < SILENT_BLOCKS_AT_END; i++) {
                failures.of(() -> encode(silence, handle).ifPresent(receiver));
            }
            failures.rethrow();
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
        private static final int SMALLEST_BITRATE = 8000; // for each channel
        private static final int BITS_PER_SAMPLE = 6;     // in the largest frames that AAC has
        private static final int LARGEST_BITRATE = BITS_PER_SAMPLE * 2 * SAMPLE_RATES.get(0);

        private int channels = 2;
        private int sampleRate = 48_000;
        private int bitrate; // 0 for the engine's own

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
         * The sampling rate of the sound.
         *
         * @param hertz one of {@link #SAMPLE_RATES}
         * @return this builder
         */
        public Builder sampleRate(int hertz) {
            if (!SAMPLE_RATES.contains(hertz)) {
                throw new IllegalArgumentException("sampleRate is " + hertz + ", allowed are " + SAMPLE_RATES + " Hz");
            }
            sampleRate = hertz;
            return this;
        }

        /**
         * The average bit rate, 64000 when none is given. FFmpeg's encoder takes it for an aim: stereo at 44100 and 48000 Hz comes
         * within 6 %, one channel of speech, and low sampling rates, may take half as much again, and of the largest
         * rates a quarter to a third is not spent.
         *
         * @param bitsPerSecond for each channel 8000 to six times the sampling rate: 16000 to 576000 for stereo at 48000 Hz
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
         * @throws IllegalArgumentException if the bit rate is not allowed with the channels and the sampling rate
         * @throws MediaException if the native library is missing, with the places tried, or there is no memory
         */
        public AacEncoder open() {
            if (bitrate != 0) {
                Settings.check("bitrate", bitrate, SMALLEST_BITRATE * channels, BITS_PER_SAMPLE * channels * sampleRate,
                        "bits per second at " + sampleRate + " Hz with " + channels + (channels == 1 ? " channel" : " channels"));
            }
            Natives.load();
            return new AacEncoder(this);
        }
    }
}
