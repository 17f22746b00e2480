package com.kelvane.media;

/**
 * The times that access units were written with, 64 bits in the caller's ticks, found again by the 32 bits of milliseconds
 * that the native engines carry. One thread uses it at a time.
 */
final class Times {
    static final int MILLISECONDS = 1000;
    static final int NANOSECONDS = 1_000_000_000;

    // Twice what a stream can hold back, 16 frames of two fields each, and room for units that give no picture.
    private static final int KEPT = 256;

    private final int ticksPerSecond;
    private final long[] written = new long[KEPT];
    private final int[] carried = new int[KEPT]; // by the engines, in place of the times
    private final long[] nanoseconds = new long[KEPT];
    private int count;

    /** @param ticksPerSecond of the times, from 1 to {@link #NANOSECONDS} */
    Times(int ticksPerSecond) {
        this.ticksPerSecond = ticksPerSecond;
    }

    /**
     * Notes the time of a unit; the NAL units of a picture, each written with its time, count once.
     *
     * @param now when that was, of {@link System#nanoTime}
     * @return what the engines are to carry: the milliseconds, or the next ones that none of the last times has
     */
    int write(long time, long now) {
        if (count == 0 || last() != time) {
            int number = (int) milliseconds(time);
            for (int at = find(number); at >= 0 && written[at] != time; at = find(number)) {
                number++;
            }
            carried[count % KEPT] = number;
            nanoseconds[count % KEPT] = now;
            written[count++ % KEPT] = time;
        }
        if (count == 2 * KEPT) {
            count = KEPT;
        }
        return carried[(count - 1) % KEPT];
    }

    /** {@return a time in whole milliseconds} */
    long milliseconds(long time) {
        return ticksPerSecond == MILLISECONDS ? time : Math.floorDiv(time, ticksPerSecond) * MILLISECONDS
                + (long) Math.floorMod(time, ticksPerSecond) * MILLISECONDS / ticksPerSecond;
    }

    /** {@return milliseconds in ticks} */
    long ticks(int milliseconds) {
        return (long) milliseconds * ticksPerSecond / MILLISECONDS;
    }

    /**
     * {@return the time that the engines carry these low 32 bits for} When it was written too long ago, behind hundreds of
     * units that gave no picture, it is taken to lie within 24 days of the last one.
     */
    long of(long number) {
        int at = find((int) number);
        return at >= 0 ? written[at] : last() + ticks((int) number - (count == 0 ? 0 : carried[(count - 1) % KEPT]));
    }

    /** {@return when the unit was written} When that was too long ago, when the last one of all was. */
    long writtenAt(long number) {
        int at = find((int) number);
        return nanoseconds[at >= 0 ? at : Math.max(0, count - 1) % KEPT];
    }

    private int find(int number) {
        for (int i = count - 1; i >= Math.max(0, count - KEPT); i--) {
            if (carried[i % KEPT] == number) {
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
