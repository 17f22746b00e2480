package com.kelvane.media.tool.input;

import com.kelvane.media.AudioConfiguration;
import java.io.IOException;
import java.util.Arrays;

/** The headers that AAC access units have where there is no container to tell about them. */
final class Adts {
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
        try {
            return AudioConfiguration.ofAdts(packet).bytes();
        } catch (IllegalArgumentException unusual) {
            throw new IOException("the first AAC packet is of no use: " + unusual.getMessage(), unusual);
        }
    }
}
