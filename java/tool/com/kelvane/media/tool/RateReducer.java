package com.kelvane.media.tool;

/** Leaves out pictures, evenly, to come down to a rate. */
public final class RateReducer {
    private final double rate;
    private final double tolerance;
    private final boolean idle;
    private double slot = Double.NEGATIVE_INFINITY;

    /** @param rate wanted, in pictures per second */
    public RateReducer(double sourceRate, double rate) {
        this.rate = rate;
        idle = rate >= sourceRate;
        tolerance = 250 / sourceRate; // ms: times are rounded, and vary
    }

    /** Whether the next picture is kept, the first one in each interval of the rate. */
    public boolean keeps(long time) {
        double next = Math.floor((time + tolerance) * rate / 1000);
        if (!idle && next <= slot) {
            return false;
        }
        slot = next;
        return true;
    }
}
