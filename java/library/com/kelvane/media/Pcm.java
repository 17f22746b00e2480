package com.kelvane.media;

import java.util.Arrays;
import java.util.Objects;

/**
 * Sound: signed samples of 16 bits, low byte first, left and right in turn when there are two channels.
 *
 * @param channels 1 or 2
 * @param sampleRate in Hz
 * @param bytes the samples; not copied
 */
public record Pcm(int channels, int sampleRate, byte[] bytes) {
    static final int BYTES_PER_SAMPLE = 2;

    /**
     * Sound over an array.
     *
     * @param channels 1 or 2
     * @param sampleRate in Hz
     * @param bytes the samples; not copied
     * @throws IllegalArgumentException if there are not 1 or 2 channels, the rate is not above 0, or the bytes are no whole
     *         number of samples for every channel
     */
    public Pcm {
        Objects.requireNonNull(bytes, "bytes");
        Settings.check("channels", channels, 1, 2, "channels");
        Settings.check("sampleRate", sampleRate, 1, Integer.MAX_VALUE, "Hz");
        if (bytes.length % (BYTES_PER_SAMPLE * channels) != 0) {
            throw new IllegalArgumentException(bytes.length + " bytes are no whole number of samples for " + channels
                    + " channels");
        }
    }

    /** {@return how many samples each channel has} */
    public int samples() {
        return bytes.length / (BYTES_PER_SAMPLE * channels);
    }

    /**
     * {@return whether the other is one with the same components, the array's content among them} As with a
     * {@link java.nio.ByteBuffer}, that and the hash code change with what is written to the array.
     */
    @Override
    public boolean equals(Object other) {
        return other instanceof Pcm pcm && channels == pcm.channels && sampleRate == pcm.sampleRate
                && Arrays.equals(bytes, pcm.bytes);
    }

    @Override
    public int hashCode() {
        return Objects.hash(channels, sampleRate, Arrays.hashCode(bytes));
    }
}
