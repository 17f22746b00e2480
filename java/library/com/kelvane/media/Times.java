package com.kelvane.media;

/**
 * The times of 64 bits that access units were written with, found again by the 32 bits that the native engines carry. One
 * thread uses it at a time.
 */
final class Times {
    // Twice what a stream can hold back, 16 frames of two fields each, and room for units that give no picture.
    private static final int KEPT = 256;

    private final long[] written = new long[KEPT];
    private int count;

    /** Notes the time of a unit; the NAL units of a picture, each written with its time, count once. */
    void write(long time) {
        if (count == 0 || last() != time) {
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
        for (int i = count - 1; i >= Math.max(0, count - KEPT); i--) {
            long time = written[i % KEPT];
            if ((int) time == (int) lowBits) {
                return time;
            }
        }
        return last() + (int) (lowBits - last());
    }

    /** {@return the time of the last unit, 0 before the first} */
    long last() {
        return count == 0 ? 0 : written[(count - 1) % KEPT];
    }
}
