package com.kelvane.media;

import java.util.Arrays;
import java.util.HexFormat;

/**
 * AAC's AudioSpecificConfig: what a decoder is to know ahead of the sound, and what MP4, FLV, Matroska and signalling carry.
 * {@link AacEncoder#configuration} has that of an encoder.
 *
 * <p>Two of them are equal when they have the same bytes.
 */
public final class AudioConfiguration {
    private static final int LC = 2;
    private static final int LONGEST = 64;
    private static final int LONG_TYPE = 31; // six bits more follow
    private static final int WRITTEN_RATE = 15; // the rate itself follows, in 24 bits
    private static final int[] CHANNELS = {0, 1, 2, 3, 4, 5, 6, 8};
    private static final int ADTS_HEADER = 7;

    private final byte[] bytes; // object type (5 bits), index of the sampling rate (4 bits), channels (4 bits), and more

    private AudioConfiguration(byte[] bytes) {
        this.bytes = bytes;
    }

    /**
     * That of AAC-LC, two bytes.
     *
     * @param sampleRate in Hz, one of {@link AacEncoder#SAMPLE_RATES}
     * @param channels 1 to 6, or 8
     * @return the configuration
     */
    public static AudioConfiguration of(int sampleRate, int channels) {
        int rate = AacEncoder.SAMPLE_RATES.indexOf(sampleRate);
        if (rate < 0) {
            throw new IllegalArgumentException("sampleRate is " + sampleRate + ", allowed are " + AacEncoder.SAMPLE_RATES + " Hz");
        }
        if (channels == 7) {
            throw new IllegalArgumentException("channels is 7, allowed are 1 to 6 and 8 channels");
        }
        return of(LC, rate, channels == 8 ? 7 : Settings.check("channels", channels, 1, 6, "channels, and 8"));
    }

    /**
     * That of a container.
     *
     * @param audioSpecificConfig from 2 to 64 bytes; copied
     * @return the configuration
     * @throws IllegalArgumentException if it has another length, no sampling rate or no usual layout of channels
     */
    public static AudioConfiguration of(byte[] audioSpecificConfig) {
        if (audioSpecificConfig.length < 2 || audioSpecificConfig.length > LONGEST) {
            throw new IllegalArgumentException("an AudioSpecificConfig has 2 to " + LONGEST + " bytes, not "
                    + audioSpecificConfig.length);
        }
        AudioConfiguration configuration = new AudioConfiguration(audioSpecificConfig.clone());
        if (configuration.sampleRate() == 0) {
            throw new IllegalArgumentException("the AudioSpecificConfig has no sampling rate");
        }
        if (configuration.channels() == 0) {
            throw new IllegalArgumentException("the AudioSpecificConfig has no usual layout of channels (" + configuration.layout()
                    + ")");
        }
        return configuration;
    }

    /**
     * What the header amounts to that access units have where no container tells about them.
     *
     * @param accessUnit AAC with an ADTS header
     * @return the configuration, two bytes
     * @throws IllegalArgumentException if it does not begin with such a header, or that has no sampling rate or no usual layout
     *         of channels
     */
    public static AudioConfiguration ofAdts(byte[] accessUnit) {
        if (accessUnit.length < ADTS_HEADER || accessUnit[0] != -1 || (accessUnit[1] & 0xf6) != 0xf0) {
            throw new IllegalArgumentException("the " + accessUnit.length + " bytes do not begin with an ADTS header");
        }
        return of(of((accessUnit[2] >> 6 & 3) + 1, accessUnit[2] >> 2 & 15, (accessUnit[2] & 1) << 2 | accessUnit[3] >> 6 & 3).bytes);
    }

    private static AudioConfiguration of(int objectType, int rateIndex, int layout) {
        return new AudioConfiguration(new byte[] {(byte) (objectType << 3 | rateIndex >> 1), (byte) (rateIndex << 7 | layout << 3)});
    }

    /** {@return the AudioSpecificConfig} */
    public byte[] bytes() {
        return bytes.clone();
    }

    /** {@return the kind of AAC: 2 is AAC-LC} */
    public int objectType() {
        int type = bits(0, 5);
        return type == LONG_TYPE ? 32 + bits(5, 6) : type;
    }

    /** {@return the sampling rate in Hz} */
    public int sampleRate() {
        int index = bits(afterType(), 4);
        return index == WRITTEN_RATE ? bits(afterType() + 4, 24)
                : index < AacEncoder.SAMPLE_RATES.size() ? AacEncoder.SAMPLE_RATES.get(index) : 0;
    }

    /** {@return how many channels there are: 1 to 6, or 8} */
    public int channels() {
        return layout() < CHANNELS.length ? CHANNELS[layout()] : 0;
    }

    /** {@return how RFC 6381 calls the sound, for playlists and players: {@code mp4a.40.2} for instance} */
    public String codecs() {
        return "mp4a.40." + objectType();
    }

    private int layout() {
        return bits(afterType() + (bits(afterType(), 4) == WRITTEN_RATE ? 28 : 4), 4);
    }

    private int afterType() {
        return bits(0, 5) == LONG_TYPE ? 11 : 5;
    }

    /** What lies behind the end is 0. */
    private int bits(int from, int count) {
        int value = 0;
        for (int i = from; i < from + count; i++) {
            value = value << 1 | (i / 8 < bytes.length ? bytes[i / 8] >> 7 - i % 8 & 1 : 0);
        }
        return value;
    }

    @Override
    public boolean equals(Object other) {
        return other instanceof AudioConfiguration configuration && Arrays.equals(bytes, configuration.bytes);
    }

    @Override
    public int hashCode() {
        return Arrays.hashCode(bytes);
    }

    @Override
    public String toString() {
        return codecs() + ", " + sampleRate() + " Hz, " + channels() + " channels (" + HexFormat.of().formatHex(bytes) + ")";
    }
}
