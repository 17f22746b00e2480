package com.kelvane.media;

import java.io.ByteArrayOutputStream;
import java.nio.BufferUnderflowException;
import java.nio.ByteBuffer;
import java.util.Locale;
import java.util.Optional;

/** H.264's parameter sets, kept in byte-stream form: what a decoder has to have ahead of the first picture. */
final class ParameterSets {
    private static final byte[] START_CODE = {0, 0, 0, 1};
    private static final int SEQUENCE = 7;
    private static final int PICTURE = 8;
    private static final int SHORTEST_SEQUENCE = 4; // its header, profile, compatibility, level

    private ParameterSets() {
    }

    /**
     * Those of a byte stream or an AVCDecoderConfigurationRecord.
     *
     * @throws IllegalArgumentException if there is not one of each
     */
    static byte[] of(byte[] given) {
        byte[] stream = given.length > 0 && given[0] == 1 ? fromRecord(given) : given;
        return in(stream, stream.length).orElseThrow(() -> new IllegalArgumentException(
                "there is no SPS or no PPS in the " + given.length + " bytes of parameter sets"));
    }

    /** Those that an access unit carries; empty when it has not both. */
    static Optional<byte[]> in(byte[] bytes, int length) {
        ByteArrayOutputStream sets = new ByteArrayOutputStream();
        boolean[] has = new boolean[2];
        AnnexB.forEachNal(bytes, length, (from, to) -> {
            int type = bytes[from] & 31;
            if (type == SEQUENCE && to - from >= SHORTEST_SEQUENCE || type == PICTURE && to - from > 1) {
                has[type - SEQUENCE] = true;
                sets.writeBytes(START_CODE);
                sets.write(bytes, from, to - from);
            }
        });
        return has[0] && has[1] ? Optional.of(sets.toByteArray()) : Optional.empty();
    }

    /** RFC 6381: the first SPS's profile, compatibility and level in hexadecimal. */
    static String codecs(byte[] sets) {
        StringBuilder name = new StringBuilder();
        AnnexB.forEachNal(sets, sets.length, (from, to) -> {
            if ((sets[from] & 31) == SEQUENCE && name.isEmpty()) {
                name.append(String.format(Locale.ROOT, "avc1.%02x%02x%02x", sets[from + 1], sets[from + 2], sets[from + 3]));
            }
        });
        return name.toString();
    }

    private static byte[] fromRecord(byte[] bytes) {
        ByteArrayOutputStream stream = new ByteArrayOutputStream();
        ByteBuffer record = ByteBuffer.wrap(bytes);
        try {
            record.position(5); // version, profile, compatibility, level, size of lengths
            for (int mask : new int[] {31, 255}) {
                for (int left = record.get() & mask; left > 0; left--) {
                    byte[] set = new byte[record.getShort() & 0xffff];
                    record.get(set);
                    stream.writeBytes(START_CODE);
                    stream.writeBytes(set);
                }
            }
        } catch (IllegalArgumentException | BufferUnderflowException cutShort) {
            throw new IllegalArgumentException("the AVCDecoderConfigurationRecord ends too early, after " + bytes.length + " bytes",
                    cutShort);
        }
        return stream.toByteArray();
    }
}
