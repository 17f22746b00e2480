package com.kelvane.media.tool.live;

/**
 * Decides how many renditions the machine has time for: one less each time it is too far behind, from the top; one more when
 * the time that is left would do for it. After each failure to keep one that was taken back, the next attempt waits longer.
 */
final class LoadShedder {
    private static final double TOO_LATE = 1500;  // ms behind the source
    private static final double IN_TIME = 300;    // ms
    private static final double MOST_BUSY = 0.75; // of the time, with the rendition that is taken back
    private static final double SHORTEST_WAIT = 10_000; // ms
    private static final double LONGEST_WAIT = 300_000;
    private static final double PROBATION = 30_000; // ms after which one that was taken back has proved to fit

    private final int renditions;
    private int left;
    private double wait = SHORTEST_WAIT;
    private double changed = Double.NEGATIVE_INFINITY;
    private double lastBehind;
    private boolean grew;

    LoadShedder(int renditions) {
        this.renditions = renditions;
        left = renditions;
    }

    /**
     * How many renditions, counted from the smallest, are to be made from now on; asked at each segment's beginning.
     *
     * @param now milliseconds, by a clock that rises
     * @param behind milliseconds behind the source
     * @param busy part of the time that was spent working
     * @param cost part of the time that the next rendition would take
     */
    int decide(double now, double behind, double busy, double cost) {
        if (behind > TOO_LATE && left > 1 && behind >= lastBehind) {
            wait = grew && now - changed < PROBATION ? Math.min(LONGEST_WAIT, 2 * wait) : wait;
            change(-1, now);
        } else if (behind < IN_TIME && left < renditions && now - changed >= wait && busy + cost <= MOST_BUSY) {
            change(1, now);
        } else if (grew && now - changed >= PROBATION) {
            wait = SHORTEST_WAIT;
        }
        lastBehind = behind;
        return left;
    }

    private void change(int by, double now) {
        left += by;
        grew = by > 0;
        changed = now;
    }
}
