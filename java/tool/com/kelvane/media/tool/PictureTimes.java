package com.kelvane.media.tool;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.PriorityQueue;
import java.util.stream.IntStream;

/** Presentation times of decoded pictures in milliseconds, found from those of the access units. */
final class PictureTimes {
    private static final int MOMENTS = 4;

    private final int reorderDepth;
    private final PriorityQueue<Long> waiting = new PriorityQueue<>();
    private final List<Long> taken = new ArrayList<>();

    /** @param reorderDepth pictures that the decoder may hold back */
    PictureTimes(int reorderDepth) {
        this.reorderDepth = reorderDepth;
    }

    /** Notes the time of the next access unit, in decoding order. */
    void add(long time) {
        waiting.add(time);
    }

    /**
     * The time of the picture that comes out of the decoder next: pictures leave it in display order, so it is the earliest
     * still waiting. More times waiting than the decoder holds pictures belong to pictures that were lost.
     */
    long next() {
        while (waiting.size() > reorderDepth + 1) {
            waiting.remove();
        }
        return waiting.element();
    }

    /** Notes that this picture came out. */
    void take() {
        taken.add(next());
        waiting.remove();
    }

    int count() {
        return taken.size();
    }

    /** Time of the picture that came out last. */
    long last() {
        return taken.isEmpty() ? 0 : taken.get(taken.size() - 1);
    }

    /** All of them, in the order in which the pictures came out. */
    List<Long> all() {
        return taken;
    }

    /** A few of these times, spread evenly over the pictures, to show those pictures. */
    static List<Long> moments(List<Long> times) {
        return IntStream.range(0, MOMENTS).map(i -> (2 * i + 1) * times.size() / (2 * MOMENTS)).distinct()
                .mapToObj(times::get).sorted().toList();
    }

    /** Seconds that the pictures take, the last one as long as the others on average. */
    double seconds(double frameRate) {
        int intervals = taken.size() - 1;
        double span = (Collections.max(taken) - Collections.min(taken)) / 1000.0;
        return intervals > 0 && span > 0 ? span * (intervals + 1) / intervals : 1 / frameRate;
    }
}
