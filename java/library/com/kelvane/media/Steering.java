package com.kelvane.media;

import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.IntPredicate;

/** What any thread asks of one encoder, until the thread that encodes takes it over. */
final class Steering {
    private final AtomicInteger bitrate = new AtomicInteger(); // 0 when none is asked for
    private final AtomicBoolean key = new AtomicBoolean();

    void bitrate(int bitsPerSecond) {
        bitrate.set(bitsPerSecond);
    }

    void requestKey() {
        key.set(true);
    }

    boolean isAsked() {
        return bitrate.get() != 0 || key.get();
    }

    /** A bit rate that is not taken is tried again with the next picture. */
    void handOver(IntPredicate setBitrate, Runnable requestKey) {
        int asked = bitrate.get();
        if (asked != 0 && setBitrate.test(asked)) {
            bitrate.compareAndSet(asked, 0);
        }
        if (key.getAndSet(false)) {
            requestKey.run();
        }
    }
}
