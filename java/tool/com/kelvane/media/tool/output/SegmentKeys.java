package com.kelvane.media.tool.output;

import com.kelvane.media.Rendition;
import com.kelvane.media.tool.shell.Text;
import java.util.Optional;

/**
 * Asks for the key pictures that segments begin with, at the same times in all renditions: pictures that all of them have.
 * The segmenter cuts at the first key picture that is a whole number of segments behind the beginning, or later. Asked for
 * by time, a key picture is never missing there, whatever rates renditions have, and where a change of scene gave one of
 * them a key picture of its own.
 */
public final class SegmentKeys {
    private static final double USUAL_SECONDS = 2; // between key pictures
    private static final int LONGEST_INTERVAL = 480;

    private final double step; // ms, a whole part of a segment
    private double origin;
    private double due;

    /** @param origin when the segments begin, in milliseconds; NaN for with the first picture */
    public SegmentKeys(int segmentSeconds, double origin) {
        this(seconds(segmentSeconds), origin);
    }

    private SegmentKeys(double seconds, double origin) {
        step = 1000 * seconds;
        this.origin = origin;
        due = Double.NEGATIVE_INFINITY;
    }

    /** Asks for one at the beginning of each segment alone. */
    public static SegmentKeys ofWhole(int segmentSeconds) {
        return new SegmentKeys((double) segmentSeconds, Double.NaN);
    }

    private static double seconds(int segmentSeconds) {
        return segmentSeconds / Math.max(1, Math.rint(segmentSeconds / USUAL_SECONDS));
    }

    /** A picture that is in all renditions: whether it is to be a key picture in each. */
    public boolean begins(long time) {
        if (Double.isNaN(origin)) {
            origin = time;
        } else if (time < due) {
            return false;
        }
        due = origin + (Math.floor((time - origin) / step) + 1) * step;
        return true;
    }

    /** The rendition with a key interval that leaves these key pictures the only regular ones. */
    public static Rendition withoutOwn(Rendition rendition, int segmentSeconds) {
        return rendition.keyInterval((int) Math.min(LONGEST_INTERVAL,
                2 * Math.ceil(seconds(segmentSeconds) * rendition.frameRate())));
    }

    /** What is to be said when segments do not hold a whole number of the key intervals that were asked for. */
    public static Optional<String> misfit(Rendition rendition, double pictureRate, int segmentSeconds) {
        double pictures = segmentSeconds * pictureRate;
        double intervals = Math.rint(pictures / rendition.keyInterval());
        return intervals >= 1 && Math.abs(intervals * rendition.keyInterval() - pictures) <= 0.5 ? Optional.empty()
                : Optional.of(Text.format("%dx%d: key=%d does not fit into segments of %d s, %.0f pictures; each segment"
                        + " begins with a key frame, and the count begins anew there", rendition.width(), rendition.height(),
                        rendition.keyInterval(), segmentSeconds, pictures));
    }
}
