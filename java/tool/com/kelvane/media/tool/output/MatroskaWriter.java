package com.kelvane.media.tool.output;

import java.io.BufferedOutputStream;
import java.io.ByteArrayOutputStream;
import java.io.Closeable;
import java.io.DataOutputStream;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * Writes H.264 access units with their presentation times into a Matroska file, which FFmpeg then copies into a container
 * of choice, or decodes: a raw stream would lose the times.
 */
public final class MatroskaWriter implements Closeable {
    private static final int SLICE_IDR = 5;
    private static final int SEQUENCE_PARAMETERS = 7;
    private static final int PICTURE_PARAMETERS = 8;
    private static final int HIGH_PROFILE = 100;

    private final DataOutputStream file;
    private final int width;
    private final int height;
    private final double frameRate;
    private final boolean keepParameterSets;
    private boolean begun;

    /**
     * @param frameRate pictures per second; tells how long the last picture lasts
     * @param keepParameterSets whether access units keep theirs, which may change in mid-stream; otherwise those of the
     *     first one serve for all
     */
    public MatroskaWriter(Path path, int width, int height, double frameRate, boolean keepParameterSets) throws IOException {
        file = new DataOutputStream(new BufferedOutputStream(Files.newOutputStream(path), 1 << 16));
        this.width = width;
        this.height = height;
        this.frameRate = frameRate;
        this.keepParameterSets = keepParameterSets;
    }

    /**
     * Adds an access unit, in decoding order. What comes before the first parameter sets cannot be decoded and is left out.
     *
     * @param accessUnit Annex-B
     * @param time when it is shown, in milliseconds
     */
    public void write(byte[] accessUnit, long time) throws IOException {
        ByteArrayOutputStream payload = new ByteArrayOutputStream(accessUnit.length + 16);
        DataOutputStream sample = new DataOutputStream(payload);
        byte[] sequence = null;
        byte[] picture = null;
        boolean key = false;
        for (byte[] unit : split(accessUnit)) {
            int type = unit[0] & 0x1f;
            if (type == SEQUENCE_PARAMETERS) {
                sequence = unit;
            } else if (type == PICTURE_PARAMETERS) {
                picture = unit;
            }
            if (keepParameterSets || type != SEQUENCE_PARAMETERS && type != PICTURE_PARAMETERS) {
                sample.writeInt(unit.length);
                sample.write(unit);
            }
            key |= type == SLICE_IDR;
        }
        if (!begun) {
            if (sequence == null || picture == null) {
                return;
            }
            writeHead(configuration(sequence, picture));
            begun = true;
        }
        // A cluster for every picture: a block's own time is relative to its cluster's and has 16 bits only.
        file.write(element(0x1f43b675, number(0xe7, time),                                // Cluster, Timestamp
                element(0xa3, new byte[] {(byte) 0x81, 0, 0, (byte) (key ? 0x80 : 0)}, payload.toByteArray()))); // SimpleBlock
    }

    @Override
    public void close() throws IOException {
        file.close();
    }

    private void writeHead(byte[] configuration) throws IOException {
        file.write(element(0x1a45dfa3, text(0x4282, "matroska"), number(0x4287, 2), number(0x4285, 2))); // EBML
        file.writeInt(0x18538067);                                                        // Segment, to the end of the file
        file.writeLong(0x01ffffffffffffffL);
        file.write(element(0x1549a966, number(0x2ad7b1, 1_000_000)));                     // Info: times in milliseconds
        file.write(element(0x1654ae6b, element(0xae,                                      // Tracks, TrackEntry
                number(0xd7, 1), number(0x73c5, 1), number(0x83, 1), number(0x9c, 0),     // number, id, video, no lacing
                text(0x86, "V_MPEG4/ISO/AVC"), element(0x63a2, configuration),
                number(0x23e383, Math.round(1e9 / frameRate)),                            // DefaultDuration in nanoseconds
                element(0xe0, number(0xb0, width), number(0xba, height)))));
    }

    private static byte[] element(int id, byte[]... contents) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream element = new DataOutputStream(bytes);
        for (int shift = 24; shift >= 0; shift -= 8) {
            if (id >>> shift != 0) {
                element.writeByte(id >>> shift);
            }
        }
        element.writeInt(0x10000000 | Arrays.stream(contents).mapToInt(content -> content.length).sum());
        for (byte[] content : contents) {
            element.write(content);
        }
        return bytes.toByteArray();
    }

    private static byte[] number(int id, long value) throws IOException {
        return element(id, ByteBuffer.allocate(Long.BYTES).putLong(value).array());
    }

    private static byte[] text(int id, String value) throws IOException {
        return element(id, value.getBytes(StandardCharsets.US_ASCII));
    }

    /** AVCDecoderConfigurationRecord; lengths of NAL units take four bytes. */
    private static byte[] configuration(byte[] sequence, byte[] picture) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream record = new DataOutputStream(bytes);
        record.write(new byte[] {1, sequence[1], sequence[2], sequence[3], (byte) 0xff, (byte) 0xe1});
        record.writeShort(sequence.length);
        record.write(sequence);
        record.writeByte(1);
        record.writeShort(picture.length);
        record.write(picture);
        if (sequence[1] == HIGH_PROFILE) {
            record.write(new byte[] {(byte) 0xfd, (byte) 0xf8, (byte) 0xf8, 0});   // 4:2:0, 8 bits, 8 bits
        }
        return bytes.toByteArray();
    }

    /** The NAL units without start codes and without zero bytes behind them. */
    private static List<byte[]> split(byte[] accessUnit) {
        List<byte[]> units = new ArrayList<>();
        int begin = -1;
        int zeros = 0;
        for (int i = 0; i <= accessUnit.length; i++) {
            boolean startCode = i < accessUnit.length && accessUnit[i] == 1 && zeros >= 2;
            if ((startCode || i == accessUnit.length) && begin >= 0 && i - zeros > begin) {
                units.add(Arrays.copyOfRange(accessUnit, begin, i - zeros));
            }
            if (startCode) {
                begin = i + 1;
            }
            zeros = i < accessUnit.length && accessUnit[i] == 0 ? zeros + 1 : 0;
        }
        return units;
    }
}
