package com.kelvane.media.tool.packager;

import java.util.PriorityQueue;

/** Finds decoding times for units that come in decoding order and tell only when they are shown. */
public final class DecodingTimes {
    /** The most pictures that H.264 holds back. */
    public static final int LARGEST_DEPTH = 16;

    private final int depth;
    private final long step;
    private final PriorityQueue<Long> shown = new PriorityQueue<>();
    private long last = Long.MIN_VALUE;

    /**
     * @param depth pictures that a decoder may hold back to bring them into display order
     * @param step between pictures, in any unit of time
     */
    public DecodingTimes(int depth, long step) {
        this.depth = depth;
        this.step = step;
    }

    /** The next unit's decoding time, which rises from one to the next; above the time given where that cannot be. */
    public long next(long time) {
        for (int i = 1; last == Long.MIN_VALUE && i <= depth; i++) {
            shown.add(time - i * step);
        }
        shown.add(time);
        last = Math.max(last + 1, shown.poll());
        return last;
    }
}
