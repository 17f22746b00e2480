package com.kelvane.media.test;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.BiConsumer;

/** Fragmented MP4 as it lies in files: tracks of an initialisation segment, samples of media segments. */
final class Mp4 {
    private static final List<String> HOLDERS = List.of("moov", "trak", "mdia", "minf", "stbl", "edts", "mvex", "moof", "traf");
    private static final int AVC1_HEADER = 78; // bytes in front of a sample entry's own boxes
    private static final int MP4A_HEADER = 28;

    /** A box without its header. */
    record Box(String type, ByteBuffer bytes, int offset) {
        long at(int position, int size) {
            long value = 0;
            for (int i = 0; i < size; i++) {
                value = value << 8 | bytes.get(position + i) & 0xff;
            }
            return value;
        }

        int version() {
            return bytes.get(0);
        }

        long flags() {
            return at(1, 3);
        }

        byte[] from(int position) {
            byte[] rest = new byte[bytes.limit() - position];
            bytes.get(position, rest);
            return rest;
        }

        List<Box> boxes(int skipped) {
            List<Box> boxes = new ArrayList<>();
            for (int at = skipped; at + 8 <= bytes.limit();) {
                long size = at(at, 4);
                int header = size == 1 ? 16 : 8;
                size = size == 1 ? at(at + 8, 8) : size == 0 ? bytes.limit() - at : size;
                if (size < header || at + size > bytes.limit()) {
                    throw new IllegalArgumentException("a box of " + size + " bytes at " + (offset + at) + " that does not fit in "
                            + type);
                }
                String name = new String(new byte[] {bytes.get(at + 4), bytes.get(at + 5), bytes.get(at + 6), bytes.get(at + 7)},
                        StandardCharsets.ISO_8859_1);
                boxes.add(new Box(name, bytes.slice(at + header, (int) size - header), offset + at + header));
                at += (int) size;
            }
            return boxes;
        }

        /** All boxes of a type, at any depth. */
        List<Box> all(String wanted) {
            List<Box> found = new ArrayList<>();
            for (Box box : boxes(0)) {
                if (box.type.equals(wanted)) {
                    found.add(box);
                }
                if (HOLDERS.contains(box.type)) {
                    found.addAll(box.all(wanted));
                }
            }
            return found;
        }

        Box one(String wanted) {
            return all(wanted).stream().findFirst().orElseThrow(() -> new IllegalArgumentException("no " + wanted + " in " + type));
        }
    }

    /** An entry of an edit list, in the units of the movie and of the track. */
    record Edit(long duration, long mediaTime) {
    }

    /**
     * A track, as its initialisation segment describes it.
     *
     * @param matrix the first four of its values, as 1, 0 or -1
     * @param configuration avcC, or AudioSpecificConfig
     * @param shape width and height of a pixel
     */
    record Track(int id, boolean isVideo, String format, long timescale, List<Integer> matrix, List<Edit> edits, byte[] configuration,
                 int width, int height, List<Integer> shape, long defaultDuration, long defaultSize, long defaultFlags) {
        /** By how many degrees players turn the pictures clockwise; -1 for what is no such turn. */
        int turned() {
            return 90 * List.of(List.of(1, 0, 0, 1), List.of(0, 1, -1, 0), List.of(-1, 0, 0, -1), List.of(0, -1, 1, 0)).indexOf(matrix);
        }

        String codec() {
            if (isVideo) {
                return String.format("%s.%02x%02x%02x", format, configuration[1], configuration[2], configuration[3]);
            }
            int type = (configuration[0] & 0xff) >> 3;
            return "mp4a.40." + (type < 31 ? type : 32 + ((configuration[0] & 7) << 3 | (configuration[1] & 0xff) >> 5));
        }
    }

    /** One sample; times in the track's units. */
    record Sample(long decoding, long presentation, long duration, boolean isSync, ByteBuffer bytes) {
        /** Whether there is an IDR picture among its NAL units. */
        boolean isIdr(Track track) {
            int lengthSize = 1 + (track.configuration[4] & 3);
            for (int at = 0; at + lengthSize < bytes.limit();) {
                int size = 0;
                for (int i = 0; i < lengthSize; i++) {
                    size = size << 8 | bytes.get(at + i) & 0xff;
                }
                if ((bytes.get(at + lengthSize) & 0x1f) == 5) {
                    return true;
                }
                at += lengthSize + Math.max(size, 0);
            }
            return false;
        }
    }

    /** The samples of a track in one fragment. */
    record Fragment(int track, long time, List<Sample> samples) {
    }

    private Mp4() {
    }

    static Map<Integer, Track> tracks(byte[] bytes) {
        Box file = new Box("file", ByteBuffer.wrap(bytes), 0);
        Map<Integer, Box> defaults = new HashMap<>();
        file.all("trex").forEach(box -> defaults.put((int) box.at(4, 4), box));
        Map<Integer, Track> tracks = new HashMap<>();
        for (Box trak : file.all("trak")) {
            Box header = trak.one("tkhd");
            int wide = header.version() == 1 ? 12 : 0; // bytes that longer times take
            int id = (int) header.at(header.version() == 1 ? 20 : 12, 4);
            List<Integer> matrix = new ArrayList<>();
            for (int i : new int[] {0, 1, 3, 4}) {
                matrix.add((int) header.at(40 + wide + 4 * i, 4) >> 16);
            }
            Box media = trak.one("mdhd");
            Box entry = trak.one("stsd").boxes(8).get(0);
            boolean isVideo = new String(trak.one("hdlr").from(8), 0, 4, StandardCharsets.ISO_8859_1).equals("vide");
            byte[] configuration = {};
            List<Integer> shape = List.of(1, 1);
            for (Box box : entry.boxes(isVideo ? AVC1_HEADER : MP4A_HEADER)) {
                if (box.type.equals("avcC")) {
                    configuration = box.from(0);
                } else if (box.type.equals("esds")) {
                    configuration = soundConfiguration(box.from(4));
                } else if (box.type.equals("pasp")) {
                    shape = List.of((int) box.at(0, 4), (int) box.at(4, 4));
                }
            }
            List<Edit> edits = new ArrayList<>();
            for (Box list : trak.all("elst")) {
                int size = list.version() == 1 ? 8 : 4;
                for (int i = 0; i < list.at(4, 4); i++) {
                    int at = 8 + i * (2 * size + 4);
                    edits.add(new Edit(list.at(at, size), size == 8 ? list.at(at + 8, 8) : (int) list.at(at + 4, 4)));
                }
            }
            Box trex = defaults.get(id);
            if (trex == null) {
                throw new IllegalArgumentException("no trex for track " + id);
            }
            tracks.put(id, new Track(id, isVideo, entry.type, media.at(media.version() == 1 ? 20 : 12, 4), matrix, edits, configuration,
                    isVideo ? (int) entry.at(24, 2) : 0, isVideo ? (int) entry.at(26, 2) : 0, shape, trex.at(12, 4), trex.at(16, 4),
                    trex.at(20, 4)));
        }
        return tracks;
    }

    /** The AudioSpecificConfig among descriptors, each of a tag, a length in groups of 7 bits, and what it holds. */
    private static byte[] soundConfiguration(byte[] descriptors) {
        for (int at = 0; at < descriptors.length;) {
            int tag = descriptors[at++];
            int length = 0;
            int part;
            do {
                part = descriptors[at++];
                length = length << 7 | part & 0x7f;
            } while (part < 0);
            if (tag == 5) {
                return Arrays.copyOfRange(descriptors, at, at + length);
            }
            at += tag == 3 ? 3 : tag == 4 ? 13 : length;
        }
        throw new IllegalArgumentException("no AudioSpecificConfig in esds");
    }

    /** @param fault takes the box and what is wrong with it */
    static List<Fragment> fragments(byte[] bytes, Map<Integer, Track> tracks, BiConsumer<String, String> fault) {
        ByteBuffer all = ByteBuffer.wrap(bytes);
        List<Fragment> fragments = new ArrayList<>();
        List<Box> boxes = new Box("segment", all, 0).boxes(0);
        for (int i = 0; i < boxes.size(); i++) {
            if (!boxes.get(i).type.equals("moof")) {
                continue;
            }
            int begin = boxes.get(i).offset - 8;
            Box data = i + 1 < boxes.size() ? boxes.get(i + 1) : boxes.get(i);
            if (!data.type.equals("mdat")) {
                fault.accept("moof", "no mdat follows");
                continue;
            }
            long used = 0;
            for (Box traf : boxes.get(i).all("traf")) {
                Fragment fragment = fragment(traf, begin, data, all, tracks);
                used += fragment.samples.stream().mapToLong(sample -> sample.bytes.limit()).sum();
                fragments.add(fragment);
            }
            if (used != data.bytes.limit()) {
                fault.accept("mdat", data.bytes.limit() + " bytes, of which samples have " + used);
            }
        }
        return fragments;
    }

    private static Fragment fragment(Box traf, int begin, Box data, ByteBuffer all, Map<Integer, Track> tracks) {
        Box header = traf.one("tfhd");
        Track track = tracks.get((int) header.at(4, 4));
        if (track == null) {
            throw new IllegalArgumentException("tfhd: no track " + header.at(4, 4));
        }
        if ((header.flags() & 0x1) != 0) {
            throw new IllegalArgumentException("tfhd: offsets from the file's beginning, which is another one in a player");
        }
        int at = 8 + ((header.flags() & 0x2) != 0 ? 4 : 0);
        long[] defaults = {track.defaultDuration, track.defaultSize, track.defaultFlags};
        for (int i = 0; i < 3; i++) {
            if ((header.flags() & 0x8 << i) != 0) {
                defaults[i] = header.at(at, 4);
                at += 4;
            }
        }
        Box timeBox = traf.one("tfdt");
        long time = timeBox.at(4, timeBox.version() == 1 ? 8 : 4);
        long decoding = time;
        List<Sample> samples = new ArrayList<>();
        for (Box run : traf.all("trun")) {
            long flags = run.flags();
            at = 8;
            int offset = data.offset;
            if ((flags & 0x1) != 0) {
                offset = begin + (int) run.at(at, 4);
                at += 4;
            }
            long firstFlags = defaults[2];
            if ((flags & 0x4) != 0) {
                firstFlags = run.at(at, 4);
                at += 4;
            }
            for (int i = 0; i < run.at(4, 4); i++) {
                long[] values = {defaults[0], defaults[1], i == 0 ? firstFlags : defaults[2], 0};
                for (int k = 0; k < 4; k++) {
                    if ((flags & 0x100 << k) != 0) {
                        values[k] = run.at(at, 4);
                        at += 4;
                    }
                }
                int size = (int) values[1];
                if (size < 0 || offset < data.offset || offset + size > data.offset + data.bytes.limit()) {
                    throw new IllegalArgumentException("trun: a sample that lies outside of mdat");
                }
                samples.add(new Sample(decoding, decoding + (int) values[3], values[0], (values[2] & 0x10000) == 0,
                        all.slice(offset, size)));
                decoding += values[0];
                offset += size;
            }
        }
        return new Fragment(track.id, time, samples);
    }
}
