package com.kelvane.media;

import com.kelvane.media.transform.codec.AACDecoder;
import java.util.Objects;
import java.util.Optional;

/**
 * Decodes AAC-LC of one or two channels: raw access units, as MP4, MKV and FLV carry them, without ADTS headers.
 * <pre>{@code
 * try (AacDecoder decoder = AacDecoder.open(audioSpecificConfig)) {
 *     decoder.decode(accessUnit).ifPresent(pcm -> play(pcm.bytes()));
 * }
 * }</pre>
 *
 * <p>One thread may use a decoder at a time: anything else is refused with an {@link IllegalStateException}.
 */
public final class AacDecoder implements AutoCloseable {
    private static final int LONGEST_CONFIGURATION = 32;
    private static final int LOW_COMPLEXITY = 2;
    private static final int SAMPLES = 1024;

    private final Engine engine;
    private final SparePcm spare = new SparePcm();
    private final int channels;
    private final int sampleRate;
    private final byte[] info = new byte[5];

    private AacDecoder(byte[] configuration, int channels, int sampleRate) {
        this.channels = channels;
        this.sampleRate = sampleRate;
        engine = Engine.open("AacDecoder", () -> AACDecoder.open(configuration), AACDecoder::close);
    }

    /**
     * Makes a decoder for one stream.
     *
     * @param audioSpecificConfig the stream's AudioSpecificConfig, 2 to 32 bytes, as the container carries it
     * @return the decoder, to be closed
     * @throws IllegalArgumentException if it is not one of AAC-LC with 1 or 2 channels
     * @throws MediaException if the native library is missing, with the places tried, or there is no memory
     */
    public static AacDecoder open(byte[] audioSpecificConfig) {
        Settings.check("length of the AudioSpecificConfig", audioSpecificConfig.length, 2, LONGEST_CONFIGURATION, "bytes");
        int bits = (audioSpecificConfig[0] & 255) << 8 | audioSpecificConfig[1] & 255;
        int objectType = bits >> 11;
        int rateIndex = bits >> 7 & 15;
        int channels = bits >> 3 & 15;
        if (objectType != LOW_COMPLEXITY) {
            throw new IllegalArgumentException("the AudioSpecificConfig announces the audio object type " + objectType
                    + ", allowed is 2 (AAC-LC)");
        }
        if (rateIndex >= AacEncoder.SAMPLE_RATES.size()) {
            throw new IllegalArgumentException("the AudioSpecificConfig has the sampling frequency index " + rateIndex
                    + ", allowed are 0 to 12");
        }
        Settings.check("channels of the AudioSpecificConfig", channels, 1, 2, "channels");
        Natives.load();
        return new AacDecoder(audioSpecificConfig.clone(), channels, AacEncoder.SAMPLE_RATES.get(rateIndex));
    }

    /**
     * Decodes one access unit.
     *
     * @param accessUnit one raw access unit
     * @return 1024 samples for each channel; empty when it could not be decoded
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Pcm> decode(byte[] accessUnit) {
        Objects.requireNonNull(accessUnit, "accessUnit");
        long handle = engine.enter("decode");
        try {
            Pcm pcm = spare.take(channels, sampleRate, SAMPLES * Pcm.BYTES_PER_SAMPLE * channels);
            if (AACDecoder.decode(accessUnit, info, pcm.bytes(), handle) == SAMPLES) {
                return Optional.of(pcm);
            }
            spare.give(pcm);
            return Optional.empty();
        } finally {
            engine.exit();
        }
    }

    /**
     * Gives sound back, to be filled again by a following call, which spares the garbage collector an array a call. The
     * caller must not use the sound any more. Any thread may call this at any time.
     *
     * @param pcm sound that this decoder handed out
     */
    public void recycle(Pcm pcm) {
        spare.give(pcm);
    }

    /** {@return 1 or 2} */
    public int channels() {
        return channels;
    }

    /** {@return the sampling rate in Hz} */
    public int sampleRate() {
        return sampleRate;
    }

    /**
     * Frees the native engine; nothing when that was done before.
     * When another thread uses this decoder, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this decoder
     */
    @Override
    public void close() {
        engine.close();
    }
}
