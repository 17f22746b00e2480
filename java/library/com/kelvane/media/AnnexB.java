package com.kelvane.media;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;

/** What this package has to know of H.264's byte-stream form: NAL units, each behind a start code 00 00 01. */
final class AnnexB {
    private static final int SLICE = 1;
    private static final int IDR_SLICE = 5;
    private static final int SEI = 6;
    private static final int ACCESS_UNIT_DELIMITER = 9;

    private AnnexB() {
    }

    /**
     * The access unit as the native engines take it: a start code of four bytes comes first, where the byte-stream form
     * allows three as well.
     *
     * @throws IllegalArgumentException if it does not begin with a start code
     */
    static Part checked(Part accessUnit) {
        if (beginsWithCode(accessUnit, 3)) {
            return accessUnit;
        }
        if (beginsWithCode(accessUnit, 2)) {
            return accessUnit.behindZero();
        }
        StringBuilder start = new StringBuilder();
        for (int i = 0; i < Math.min(4, accessUnit.size); i++) {
            start.append(String.format(Locale.ROOT, " %02x", accessUnit.at(i)));
        }
        throw new IllegalArgumentException("an access unit begins with the start code 00 00 00 01 or 00 00 01; this one"
                + (start.length() == 0 ? " is empty" : " begins with" + start)
                + ". MP4, MKV and FLV put lengths there instead: replace each by a start code");
    }

    static byte[] checked(byte[] accessUnit) {
        return checked(Part.of(accessUnit)).array;
    }

    /** Whether it is one that {@link #checked} takes. */
    static boolean isChecked(byte[] bytes) {
        Part part = Part.of(bytes);
        return beginsWithCode(part, 3) || beginsWithCode(part, 2);
    }

    private static boolean beginsWithCode(Part bytes, int zeros) {
        if (bytes.size <= zeros || bytes.at(zeros) != 1) {
            return false;
        }
        for (int i = 0; i < zeros; i++) {
            if (bytes.at(i) != 0) {
                return false;
            }
        }
        return true;
    }

    /** Whether the first slice of an access unit is one of an IDR picture. */
    static boolean isKey(byte[] bytes, int length) {
        for (int at = nextNal(bytes, 0, length); at < length; at = nextNal(bytes, at, length)) {
            int type = bytes[at] & 31;
            if (isSlice(type)) {
                return type == IDR_SLICE;
            }
        }
        return false;
    }

    static boolean isSlice(int type) {
        return type == SLICE || type == IDR_SLICE;
    }

    /** Receives the places of NAL units, without start codes. */
    interface NalReceiver {
        /**
         * @param to index behind the last byte; above {@code from}
         * @return whether to go on
         */
        boolean receive(int from, int to);
    }

    /** Hands out NAL units, without the zeros behind them. */
    static void forEachNal(byte[] bytes, int length, NalReceiver receiver) {
        for (int at = nextNal(bytes, 0, length); at < length;) {
            int code = nextCode(bytes, at, length);
            int end = code;
            while (end > at && bytes[end - 1] == 0) {
                end--;
            }
            if (end > at && !receiver.receive(at, end)) {
                return;
            }
            at = nextNal(bytes, code, length);
        }
    }

    /** Cuts a stream into access units, ahead of a delimiter, of parameter sets and SEI, and of each picture's first slice. */
    static List<byte[]> split(byte[] stream) {
        List<byte[]> units = new ArrayList<>();
        int start = -1;
        boolean hasSlice = false;
        for (int at = nextNal(stream, 0, stream.length); at < stream.length; at = nextNal(stream, at, stream.length)) {
            int type = stream[at] & 31;
            boolean slice = isSlice(type);
            // A slice that begins at macroblock 0, which as an Exp-Golomb code is a 1, begins a picture.
            boolean first = slice ? at + 1 < stream.length && stream[at + 1] < 0
                    : type >= SEI && type <= ACCESS_UNIT_DELIMITER || type >= 14 && type <= 18;
            int code = startCodeOf(stream, at);
            if (start < 0) {
                start = code;
            } else if (first && hasSlice) {
                units.add(Arrays.copyOfRange(stream, start, code));
                start = code;
                hasSlice = false;
            }
            hasSlice |= slice;
        }
        if (start >= 0) {
            units.add(Arrays.copyOfRange(stream, start, stream.length));
        }
        return units;
    }

    /** The index of the next start code, or the length. */
    static int nextStartCode(byte[] bytes, int from) {
        int nal = nextNal(bytes, from, bytes.length);
        return nal < bytes.length ? startCodeOf(bytes, nal) : nal;
    }

    /** Where the start code of a NAL unit begins, of four bytes where it can be. */
    private static int startCodeOf(byte[] bytes, int nal) {
        return nal > 3 && bytes[nal - 4] == 0 ? nal - 4 : nal - 3;
    }

    /** The index of the first byte behind the next start code, or {@code length}. */
    private static int nextNal(byte[] bytes, int from, int length) {
        int code = nextCode(bytes, from, length);
        return code < length ? code + 3 : length;
    }

    /** The index of the next start code of three bytes, or {@code length}. */
    private static int nextCode(byte[] bytes, int from, int length) {
        for (int i = from; i + 2 < length; i++) {
            if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1) {
                return i;
            }
        }
        return length;
    }
}
