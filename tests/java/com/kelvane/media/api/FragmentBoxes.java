package com.kelvane.media.api;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;

/** What a fragment of one track says of itself, read apart from what wrote it. */
record FragmentBoxes(long decodeTime, long duration, int units, boolean beginsWithIdr) {
    static FragmentBoxes of(byte[] fragment) {
        ByteBuffer file = ByteBuffer.wrap(fragment);
        ByteBuffer traf = box(box(file, "moof"), "traf");
        ByteBuffer header = box(traf, "tfhd");
        int flags = header.getInt(0);
        int usual = 8 + ((flags & 2) == 0 ? 0 : 4);
        long usualDuration = (flags & 8) == 0 ? 0 : header.getInt(usual);
        ByteBuffer run = box(traf, "trun");
        int runFlags = run.getInt(0);
        int units = run.getInt(4);
        int place = run.getInt(8);
        int size = 4 * Integer.bitCount(runFlags & 0xf00);
        long duration = 0;
        for (int i = 0; i < units; i++) {
            int entry = 12 + ((runFlags & 4) == 0 ? 0 : 4) + i * size;
            duration += (runFlags & 0x100) == 0 ? usualDuration : run.getInt(entry);
        }
        boolean idr = false;
        for (int at = place; !idr && at + 5 < fragment.length && (fragment[at + 4] & 31) != 1; at += 4 + file.getInt(at)) {
            idr = (fragment[at + 4] & 31) == 5;
        }
        return new FragmentBoxes(box(traf, "tfdt").getLong(4), duration, units, idr);
    }

    private static ByteBuffer box(ByteBuffer in, String type) {
        for (int at = 0; at < in.limit(); at += in.getInt(at)) {
            byte[] name = new byte[4];
            in.get(at + 4, name);
            if (new String(name, StandardCharsets.ISO_8859_1).equals(type)) {
                return in.slice(at + 8, in.getInt(at) - 8);
            }
        }
        throw new AssertionError("no box " + type);
    }
}
