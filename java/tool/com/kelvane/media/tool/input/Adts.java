package com.kelvane.media.tool.input;

import com.kelvane.media.AacEncoder;
import java.io.IOException;
import java.util.Arrays;

/** What AAC decoders are told beforehand, and the headers that AAC access units have where there is no container to tell about them. */
final class Adts {
    private static final int LC = 2;
    private static final int HEADER = 7;
    private static final int HEADER_WITH_CHECKSUM = 9;

    private Adts() {
    }

    /** The access unit without its header, if it has one. */
    static byte[] strip(byte[] packet) {
        boolean header = packet.length > HEADER_WITH_CHECKSUM && (packet[0] & 0xff) == 0xff && (packet[1] & 0xf6) == 0xf0;
        // A checksum follows the header unless its last bit here says that there is none.
        return header ? Arrays.copyOfRange(packet, (packet[1] & 1) == 1 ? HEADER : HEADER_WITH_CHECKSUM, packet.length)
                : packet;
    }

    /** The AudioSpecificConfig that a header amounts to. */
    static byte[] configuration(byte[] packet) throws IOException {
        if (packet.length < HEADER) {
            throw new IOException("the first AAC packet could not be copied");
        }
        int objectType = (packet[2] >> 6 & 3) + 1;
        int rateIndex = packet[2] >> 2 & 15;
        int channels = (packet[2] & 1) << 2 | packet[3] >> 6 & 3;
        return configuration(objectType, rateIndex, channels);
    }

    /** The AudioSpecificConfig of AAC-LC at one of the usual rates, in Hz. */
    static byte[] configuration(int sampleRate, int channels) {
        return configuration(LC, AacEncoder.SAMPLE_RATES.indexOf(sampleRate), channels);
    }

    private static byte[] configuration(int objectType, int rateIndex, int channels) {
        return new byte[] {(byte) (objectType << 3 | rateIndex >> 1), (byte) (rateIndex << 7 | channels << 3)};
    }
}
