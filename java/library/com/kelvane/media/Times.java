package com.kelvane.media;

/**
 * The times of 64 bits that access units were written with, found again by the 32 bits that the native engines carry. One
 * thread uses it at a time.
 */
final class Times {
    // Twice what a stream can hold back, 16 frames of two fields each, and room for units that give no picture.
    private static final int KEPT = 256;

    private final long[] written = new long[KEPT];
    private final long[] nanoseconds = new long[KEPT];
    private int count;

    /** Notes the time of a unit; the NAL units of a picture, each written with its time, count once. */
    void write(long time) {
        write(time, 0);
    }

    /** Notes also when that was, of {@link System#nanoTime}. */
    void write(long time, long now) {
        if (count == 0 || last() != time) {
            nanoseconds[count % KEPT] = now;
            written[count++ % KEPT] = time;
        }
        if (count == 2 * KEPT) {
            count = KEPT;
        }
    }

    /**
     * {@return the time that was written last among those with these low 32 bits} When it was written too long ago, behind
     * hundreds of units that gave no picture, it is taken to lie within 24 days of the last one.
     */
    long of(long lowBits) {
        int at = find(lowBits);
        return at >= 0 ? written[at] : last() + (int) (lowBits - last());
    }

    /** {@return when the last unit with this time was written} When that was too long ago, when the last one of all was. */
    long writtenAt(long time) {
        int at = find(time);
        return nanoseconds[at >= 0 ? at : Math.max(0, count - 1) % KEPT];
    }

    private int find(long lowBits) {
        for (int i = count - 1; i >= Math.max(0, count - KEPT); i--) {
            if ((int) written[i % KEPT] == (int) lowBits) {
                return i % KEPT;
            }
        }
        return -1;
    }

    /** {@return the time of the last unit, 0 before the first} */
    long last() {
        return count == 0 ? 0 : written[(count - 1) % KEPT];
    }
}
