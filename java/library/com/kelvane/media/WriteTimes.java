package com.kelvane.media;

/** When access units were written, by the times of their pictures: as many as a decoder may hold back, and more. */
final class WriteTimes {
    private static final int KEPT = 64; // a decoder holds back 16 pictures, of two fields each

    private final long[] times = new long[KEPT];
    private final long[] nanoseconds = new long[KEPT];
    private int last;

    void add(long time, long now) {
        last = (last + 1) % KEPT;
        times[last] = time;
        nanoseconds[last] = now;
    }

    /** When the access unit with this time was written, the last of several; the last one of all when it is not known. */
    long of(long time) {
        for (int i = 0; i < KEPT; i++) {
            int at = (last - i + KEPT) % KEPT;
            if (times[at] == time) {
                return nanoseconds[at];
            }
        }
        return nanoseconds[last];
    }
}
