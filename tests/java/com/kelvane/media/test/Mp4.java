package com.kelvane.media.test;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.NoSuchElementException;

/** Fragmented MP4 of one track, as it lies in files. */
public final class Mp4 {
    /**
     * What an initialisation segment says.
     *
     * @param usual duration, size and flags of samples that say nothing else
     * @param entry the box of a type such as avc1 that describes them
     */
    public record Track(long timescale, boolean hasEdits, int[] usual, ByteBuffer entry) {
        public static Track of(byte[] initialisation) {
            ByteBuffer movie = box(ByteBuffer.wrap(initialisation), "moov");
            ByteBuffer media = box(movie, "trak", "mdia");
            ByteBuffer header = box(media, "mdhd");
            ByteBuffer usual = box(movie, "mvex", "trex").position(12);
            ByteBuffer entries = box(media, "minf", "stbl", "stsd");
            return new Track(header.getInt(header.get(0) == 1 ? 20 : 12), !boxes(movie, "trak", "edts", "elst").isEmpty(),
                    new int[] {usual.getInt(), usual.getInt(), usual.getInt()}, entries.slice(8, entries.limit() - 8));
        }
    }

    /** One sample; times in the track's units. */
    public record Sample(long decoded, long shown, long duration, boolean isSync, ByteBuffer bytes) {
        /** Whether there is an IDR picture among its NAL units. */
        public boolean isIdr() {
            for (int at = 0; at + 4 < bytes.limit(); at += 4 + bytes.getInt(at)) {
                if ((bytes.get(at + 4) & 31) == 5) {
                    return true;
                }
            }
            return false;
        }
    }

    private Mp4() {
    }

    /** All boxes of the last type, in those of the types before it. They begin behind their headers. */
    static List<ByteBuffer> boxes(ByteBuffer in, String... path) {
        List<ByteBuffer> found = new ArrayList<>();
        for (int at = 0; at < in.limit(); at += in.getInt(at)) {
            ByteBuffer box = in.slice(at + 8, in.getInt(at) - 8);
            if (StandardCharsets.ISO_8859_1.decode(in.slice(at + 4, 4)).toString().equals(path[0])) {
                found.addAll(path.length == 1 ? List.of(box) : boxes(box, Arrays.copyOfRange(path, 1, path.length)));
            }
        }
        return found;
    }

    static ByteBuffer box(ByteBuffer in, String... path) {
        return boxes(in, path).stream().findFirst().orElseThrow(() -> new NoSuchElementException("no " + String.join("/", path)));
    }

    /** The next value if flags say that it is there. */
    private static int value(ByteBuffer box, int flags, int flag, int otherwise) {
        return (flags & flag) != 0 ? box.getInt() : otherwise;
    }

    public static List<Sample> samples(byte[] segment, Track track) {
        ByteBuffer file = ByteBuffer.wrap(segment);
        List<Sample> samples = new ArrayList<>();
        int used = 0;
        for (ByteBuffer moof : boxes(file, "moof")) {
            ByteBuffer fragment = box(moof, "traf");
            ByteBuffer header = box(fragment, "tfhd");
            int flags = header.getInt();
            header.getInt(); // the track's number
            if ((flags & 1) != 0) {
                throw new IllegalArgumentException("tfhd: offsets from the file's beginning, which is another one in a player");
            }
            value(header, flags, 2, 0); // of which sample entry they are
            int duration = value(header, flags, 8, track.usual[0]);
            int size = value(header, flags, 16, track.usual[1]);
            int kind = value(header, flags, 32, track.usual[2]);
            ByteBuffer begin = box(fragment, "tfdt");
            long time = begin.getInt() >>> 24 == 1 ? begin.getLong() : begin.getInt();
            for (ByteBuffer run : boxes(fragment, "trun")) {
                flags = run.getInt();
                int count = run.getInt();
                int offset = moof.arrayOffset() - 8 + value(run, flags, 1, 0);
                int first = value(run, flags, 4, kind);
                for (int i = 0; i < count; i++) {
                    long taken = value(run, flags, 0x100, duration);
                    int length = value(run, flags, 0x200, size);
                    boolean isSync = (value(run, flags, 0x400, i == 0 ? first : kind) & 0x10000) == 0;
                    samples.add(new Sample(time, time + value(run, flags, 0x800, 0), taken, isSync, file.slice(offset, length)));
                    time += taken;
                    offset += length;
                    used += length;
                }
            }
        }
        int held = boxes(file, "mdat").stream().mapToInt(ByteBuffer::limit).sum();
        if (used != held) {
            throw new IllegalArgumentException("mdat: " + held + " bytes, of which samples have " + used);
        }
        return samples;
    }
}
