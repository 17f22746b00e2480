package com.kelvane.media;

/** AAC's AudioSpecificConfig: object type (5 bits), index of the sampling rate (4 bits), channels (4 bits), and more. */
final class AudioConfiguration {
    private static final int LC = 2;
    private static final int LONGEST = 64;
    private static final int LONG_TYPE = 31; // six bits more follow
    private static final int WRITTEN_RATE = 15; // the rate itself follows, in 24 bits
    private static final int[] CHANNELS = {0, 1, 2, 3, 4, 5, 6, 8};

    private AudioConfiguration() {
    }

    static byte[] of(int sampleRate, int channels) {
        int rate = AacEncoder.SAMPLE_RATES.indexOf(sampleRate);
        if (rate < 0) {
            throw new IllegalArgumentException("sampleRate is " + sampleRate + ", allowed are " + AacEncoder.SAMPLE_RATES + " Hz");
        }
        if (channels == 7) {
            throw new IllegalArgumentException("channels is 7, allowed are 1 to 6 and 8 channels");
        }
        int layout = channels == 8 ? 7 : Settings.check("channels", channels, 1, 6, "channels, and 8");
        return new byte[] {(byte) (LC << 3 | rate >> 1), (byte) (rate << 7 | layout << 3)};
    }

    static int objectType(byte[] configuration) {
        int type = bits(configuration, 0, 5);
        return type == LONG_TYPE ? 32 + bits(configuration, 5, 6) : type;
    }

    static int sampleRate(byte[] configuration) {
        if (configuration.length < 2 || configuration.length > LONGEST) {
            throw new IllegalArgumentException("an AudioSpecificConfig has 2 to " + LONGEST + " bytes, not " + configuration.length);
        }
        int index = bits(configuration, afterType(configuration), 4);
        int rate = index == WRITTEN_RATE ? bits(configuration, afterType(configuration) + 4, 24)
                : index < AacEncoder.SAMPLE_RATES.size() ? AacEncoder.SAMPLE_RATES.get(index) : 0;
        if (rate == 0) {
            throw new IllegalArgumentException("the AudioSpecificConfig has no sampling rate");
        }
        return rate;
    }

    static int channels(byte[] configuration) {
        int rate = afterType(configuration);
        int layout = bits(configuration, rate + (bits(configuration, rate, 4) == WRITTEN_RATE ? 28 : 4), 4);
        if (layout == 0 || layout >= CHANNELS.length) {
            throw new IllegalArgumentException("the AudioSpecificConfig has no usual layout of channels (" + layout + ")");
        }
        return CHANNELS[layout];
    }

    private static int afterType(byte[] configuration) {
        return bits(configuration, 0, 5) == LONG_TYPE ? 11 : 5;
    }

    /** What lies behind the end is 0. */
    private static int bits(byte[] bytes, int from, int count) {
        int value = 0;
        for (int i = from; i < from + count; i++) {
            value = value << 1 | (i / 8 < bytes.length ? bytes[i / 8] >> 7 - i % 8 & 1 : 0);
        }
        return value;
    }
}
