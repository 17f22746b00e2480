package com.kelvane.media.spark;

import java.io.ByteArrayOutputStream;
import java.util.Arrays;

/**
 * The parameter sets of a container's H.264 track. FFmpeg puts them before IDR pictures, and the key frame of an open group of
 * pictures, with which a chunk may begin, is none.
 */
final class ParameterSets {
    private static final byte[] START_CODE = {0, 0, 0, 1};
    private static final int SEQUENCE_PARAMETERS = 7;
    private static final int DELIMITER = 9;
    private static final int DELIMITER_SIZE = 6; // bytes, with its start code
    private static final int FIRST = 5;          // byte of an AVCDecoderConfigurationRecord that counts the first kind

    private final byte[] bytes; // Annex-B

    /** @param configuration the container's: an AVCDecoderConfigurationRecord, or Annex-B */
    ParameterSets(byte[] configuration) {
        bytes = configuration.length > FIRST + 1 && configuration[0] == 1 ? converted(configuration) : configuration;
    }

    private static byte[] converted(byte[] record) {
        ByteArrayOutputStream stream = new ByteArrayOutputStream();
        int at = FIRST;
        for (int mask : new int[] {0x1f, 0xff}) { // sequence, then picture parameter sets
            int count = at < record.length ? record[at++] & mask : 0;
            for (int i = 0; i < count && at + 2 <= record.length; i++) {
                int size = (record[at] & 0xff) << 8 | record[at + 1] & 0xff;
                at += 2;
                stream.writeBytes(START_CODE);
                stream.write(record, at, Math.min(size, record.length - at));
                at += size;
            }
        }
        return stream.toByteArray();
    }

    /** An access unit with them, behind its delimiter; as it is when it has some. */
    byte[] before(byte[] accessUnit) {
        for (int i = 0; i + 3 < accessUnit.length; i++) {
            if (accessUnit[i] == 0 && accessUnit[i + 1] == 0 && accessUnit[i + 2] == 1
                    && (accessUnit[i + 3] & 0x1f) == SEQUENCE_PARAMETERS) {
                return accessUnit;
            }
        }
        boolean delimited = accessUnit.length >= DELIMITER_SIZE && (accessUnit[START_CODE.length] & 0x1f) == DELIMITER;
        int at = delimited ? DELIMITER_SIZE : 0;
        byte[] whole = Arrays.copyOf(accessUnit, accessUnit.length + bytes.length);
        System.arraycopy(bytes, 0, whole, at, bytes.length);
        System.arraycopy(accessUnit, at, whole, at + bytes.length, accessUnit.length - at);
        return whole;
    }
}
