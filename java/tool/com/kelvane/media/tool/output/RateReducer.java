package com.kelvane.media.tool.output;

import com.kelvane.media.PicturePlan;

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

    /**
     * Leaves a picture out of renditions, each with a reducer of its own.
     *
     * @param first the first of those that matter to the result
     * @return whether all of these keep it
     */
    public static boolean thin(RateReducer[] reducers, int first, long time, PicturePlan picture) {
        boolean inAll = true;
        for (int i = 0; i < reducers.length; i++) {
            boolean keeps = reducers[i].keeps(time);
            picture.select(i, keeps);
            inAll &= keeps || i < first;
        }
        return inAll;
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
