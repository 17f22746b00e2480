package com.kelvane.media.tool.live;

import java.util.Arrays;
import java.util.OptionalDouble;

/**
 * Makes one time line of a source's times, which may jump, wrap or begin anew: where a track's times are not continuous, the
 * gap is closed, for all tracks alike. All in milliseconds.
 */
final class SourceClock {
    private static final double TOLERANCE = 1000;  // by which a track may run ahead or fall behind
    private static final double ALIGNMENT = 10_000; // by which tracks may differ from one another

    private final double[] ends;       // of what each track has had, by the result's clock
    private final boolean[] joined;    // whether a track has gone on by the newest offset
    private double offset = Double.NaN;
    private double before = Double.NaN; // the offset before: the other tracks jump later
    private double jump = Double.NaN;

    SourceClock(int tracks) {
        ends = new double[tracks];
        joined = new boolean[tracks];
    }

    /** A stream begins that has nothing to do with the one before. */
    void restart() {
        offset = Double.NaN;
        before = Double.NaN;
    }

    /**
     * The time in the result.
     *
     * @param decodingTime the source's, which rises
     * @param time of presentation, the source's
     * @param duration expected
     */
    double at(int track, double decodingTime, double time, double duration) {
        double apart = decodingTime + offset - ends[track];
        double apartBefore = decodingTime + before - ends[track];
        if (Math.abs(apartBefore) < Math.abs(apart) && Math.abs(apartBefore) <= TOLERANCE) {
            return advance(track, decodingTime, time, duration, before);
        }
        double allowed = (joined[track] ? TOLERANCE : ALIGNMENT) + 2 * duration;
        if (!(Math.abs(apart) <= allowed) && !isWithAnother(track, decodingTime + offset)) {
            double resumed = ends[track];
            for (int i = 0; Double.isNaN(offset) && i < ends.length; i++) {
                resumed = Math.max(resumed, ends[i]);
            }
            jump = apart;
            before = offset;
            offset = resumed - decodingTime;
            Arrays.fill(joined, false);
        }
        joined[track] = true;
        return advance(track, decodingTime, time, duration, offset);
    }

    /** Whether another track has got to a time: then nothing has jumped, and this one has been silent, or shown nothing new. */
    private boolean isWithAnother(int track, double at) {
        for (int i = 0; i < ends.length; i++) {
            if (i != track && joined[i] && Math.abs(at - ends[i]) <= TOLERANCE) {
                return true;
            }
        }
        return false;
    }

    private double advance(int track, double decodingTime, double time, double duration, double chosen) {
        ends[track] = decodingTime + chosen + duration;
        return time + chosen;
    }

    /** The time in the result of what has no time, behind what came before it. */
    double next(int track, double duration) {
        double time = ends[track];
        ends[track] += duration;
        return time;
    }

    /** Where a track has got to. */
    double end(int track) {
        return ends[track];
    }

    /** By how much the source's times have jumped since this was asked last. */
    OptionalDouble jump() {
        double jumped = jump;
        jump = Double.NaN;
        return Double.isNaN(jumped) ? OptionalDouble.empty() : OptionalDouble.of(jumped);
    }
}
