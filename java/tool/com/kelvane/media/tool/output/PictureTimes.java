package com.kelvane.media.tool.output;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.stream.IntStream;

/** Presentation times of the pictures that went out, in milliseconds. */
public final class PictureTimes {
    private static final int MOMENTS = 4;

    private final List<Long> times = new ArrayList<>();

    /** Notes a picture's time; the same time may come once for every rendition of the picture. */
    public void add(long time) {
        if (times.isEmpty() || last() != time) {
            times.add(time);
        }
    }

    /** Time of the picture that came last. */
    public long last() {
        return times.isEmpty() ? 0 : times.get(times.size() - 1);
    }

    /** A few of the times, spread evenly over the pictures, to show those pictures. */
    public List<Long> moments() {
        return IntStream.range(0, MOMENTS).map(i -> (2 * i + 1) * times.size() / (2 * MOMENTS)).distinct()
                .mapToObj(times::get).sorted().toList();
    }

    /** Seconds that the pictures take, the last one as long as the others on average. */
    public double seconds(double frameRate) {
        int intervals = times.size() - 1;
        double span = intervals < 0 ? 0 : Collections.max(times) - Collections.min(times);
        return intervals > 0 && span > 0 ? span / 1000 * (intervals + 1) / intervals : 1 / frameRate;
    }
}
