package com.kelvane.media.tool.output;

import java.io.ByteArrayOutputStream;
import java.io.Closeable;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;

/**
 * Writes H.264 and AAC access units with their presentation times as one Matroska stream, which FFmpeg then copies into
 * containers of choice, or decodes: raw streams would lose the times.
 */
public final class MatroskaWriter implements Closeable {
    private static final int SLICE_IDR = 5;
    private static final int SEQUENCE_PARAMETERS = 7;
    private static final int PICTURE_PARAMETERS = 8;
    private static final int HIGH_PROFILE = 100;
    private static final int VIDEO = 1;
    private static final int SOUND = 2;
    private static final long LEAD = 1000; // ms; pictures before 0 need not begin with the earliest

    private final DataOutputStream stream;
    private final List<Track> tracks = new ArrayList<>();
    private final List<byte[]> waiting = new ArrayList<>(); // clusters, until all tracks are known
    private boolean begun;

    private static final class Track {
        private int width;
        private int height;
        private double frameRate;
        private boolean keepParameterSets;
        private boolean rising;
        private byte[] entry; // the TrackEntry, once it is known
        private long delay;
        private Picture held;
    }

    /** An access unit; its time is in milliseconds, with the delay. */
    private record Picture(byte[] payload, long time, boolean key) {
    }

    public MatroskaWriter(OutputStream stream) {
        this.stream = new DataOutputStream(stream);
    }

    /**
     * Adds a video track; all tracks come before their contents.
     *
     * @param frameRate pictures per second; tells how long the last picture lasts
     * @param keepParameterSets whether access units keep theirs, which may change in mid-stream; otherwise those of the
     *     first one serve for all
     * @return the track's number
     */
    public int addVideo(int width, int height, double frameRate, boolean keepParameterSets) {
        return addVideo(width, height, frameRate, keepParameterSets, !keepParameterSets);
    }

    /**
     * Adds a video track.
     *
     * @param rising whether pictures come in the order of display; each is then written when the next one has come, and tells
     *     how long it lasts
     */
    public int addVideo(int width, int height, double frameRate, boolean keepParameterSets, boolean rising) {
        Track track = new Track();
        track.rising = rising;
        track.width = width;
        track.height = height;
        track.frameRate = frameRate;
        track.keepParameterSets = keepParameterSets;
        tracks.add(track);
        return tracks.size();
    }

    /**
     * Adds an AAC track.
     *
     * @param configuration its AudioSpecificConfig
     * @param sampleRate in Hz
     * @param delay milliseconds by which its times may precede 0
     * @return the track's number
     */
    public int addSound(byte[] configuration, int sampleRate, int channels, long delay) throws IOException {
        Track track = new Track();
        track.delay = delay;
        tracks.add(track);
        track.entry = trackEntry(tracks.size(), SOUND, "A_AAC", configuration, delay, new byte[0],
                element(0xe1, real(0xb5, sampleRate), number(0x9f, channels)));
        return tracks.size();
    }

    /**
     * Adds a picture, in decoding order. What comes before the first parameter sets cannot be decoded and is left out.
     *
     * @param accessUnit Annex-B
     * @param time when it is shown, in milliseconds; where a track begins before 0, that is not shown
     */
    public void writePicture(int number, byte[] accessUnit, long time) throws IOException {
        Track track = tracks.get(number - 1);
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
            if (track.keepParameterSets || type != SEQUENCE_PARAMETERS && type != PICTURE_PARAMETERS) {
                sample.writeInt(unit.length);
                sample.write(unit);
            }
            key |= type == SLICE_IDR;
        }
        if (track.entry == null) {
            if (sequence == null || picture == null) {
                return;
            }
            track.delay = time < 0 ? LEAD - time : 0;
            track.entry = trackEntry(number, VIDEO, "V_MPEG4/ISO/AVC", configuration(sequence, picture), track.delay,
                    number(0x23e383, Math.round(1e9 / track.frameRate)),                  // DefaultDuration in nanoseconds
                    element(0xe0, number(0xb0, track.width), number(0xba, track.height)));
        }
        Picture current = new Picture(payload.toByteArray(), time + track.delay, key);
        if (!track.rising) {
            write(number, current, 0);
            return;
        }
        // Told how long each picture really lasts, FFmpeg begins fragments at the times of their pictures; otherwise it takes
        // the usual duration for that of the picture before.
        if (track.held != null) {
            write(number, track.held, current.time - track.held.time);
        }
        track.held = current;
    }

    /** Adds an AAC access unit, without a header; its time may precede 0 by the track's delay. */
    public void writeSound(int number, byte[] accessUnit, long time) throws IOException {
        write(number, new Picture(accessUnit, time + tracks.get(number - 1).delay, true), 0);
    }

    /** @param duration in milliseconds, 0 for the usual one */
    private void write(int number, Picture block, long duration) throws IOException {
        byte[] header = {(byte) (0x80 | number), 0, 0, (byte) (block.key && duration <= 0 ? 0x80 : 0)};
        // A cluster for every block: a block's own time is relative to its cluster's and has 16 bits only.
        byte[] cluster = element(0x1f43b675, number(0xe7, Math.max(0, block.time)),       // Cluster, Timestamp
                duration <= 0 ? element(0xa3, header, block.payload)                      // SimpleBlock
                : element(0xa0, element(0xa1, header, block.payload), number(0x9b, duration), // BlockGroup, BlockDuration
                        block.key ? new byte[0] : number(0xfb, -1)));                     // ReferenceBlock: the one before
        if (begun) {
            stream.write(cluster);
            return;
        }
        waiting.add(cluster);
        if (tracks.stream().allMatch(track -> track.entry != null)) {
            begin();
        }
    }

    /** Writes what there is, also when tracks turned out to be empty. */
    @Override
    public void close() throws IOException {
        for (int i = 0; i < tracks.size(); i++) {
            if (tracks.get(i).held != null) {
                write(i + 1, tracks.get(i).held, 0);
            }
        }
        if (!begun) {
            begin();
        }
        stream.close();
    }

    private void begin() throws IOException {
        stream.write(element(0x1a45dfa3, text(0x4282, "matroska"), number(0x4287, 2), number(0x4285, 2))); // EBML
        stream.writeInt(0x18538067);                                                      // Segment, to the end of the file
        stream.writeLong(0x01ffffffffffffffL);
        stream.write(element(0x1549a966, number(0x2ad7b1, 1_000_000)));                   // Info: times in milliseconds
        stream.write(element(0x1654ae6b, tracks.stream().map(track -> track.entry).filter(Objects::nonNull)
                .toArray(byte[][]::new)));                                                // Tracks
        for (byte[] cluster : waiting) {
            stream.write(cluster);
        }
        waiting.clear();
        begun = true;
    }

    private static byte[] trackEntry(int number, int type, String codec, byte[] configuration, long delay, byte[] timing,
                                     byte[] format) throws IOException {
        return element(0xae, number(0xd7, number), number(0x73c5, number), number(0x83, type), number(0x9c, 0), // no lacing
                text(0x86, codec), element(0x63a2, configuration),
                number(0x56aa, delay * 1_000_000), timing, format);                       // CodecDelay in nanoseconds
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

    private static byte[] real(int id, double value) throws IOException {
        return element(id, ByteBuffer.allocate(Double.BYTES).putDouble(value).array());
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
