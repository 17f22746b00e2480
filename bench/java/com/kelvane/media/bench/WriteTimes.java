package com.kelvane.media.bench;

import com.kelvane.media.Transcoder;
import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicLong;
import javax.management.NotificationEmitter;
import javax.management.openmbean.CompositeData;

/**
 * How long a write takes while a server works: a transcoder for each core, at full load or at half of it (each rests as long
 * as it worked), and each access unit arrives in a fresh array. Arguments: PACKETS LOAD SECONDS
 */
public final class WriteTimes {
    private WriteTimes() {
    }

    public static void main(String[] arguments) throws Exception {
        List<byte[]> units = Packets.read(Path.of(arguments[0])).list();
        boolean half = arguments[1].equals("half");
        long seconds = Long.parseLong(arguments[2]);
        AtomicLong longestPause = new AtomicLong();
        watchPauses(longestPause);
        long end = System.nanoTime() + seconds * 1_000_000_000;
        long measured = System.nanoTime() + seconds * 1_000_000_000 / 5; // behind the warm-up
        List<List<Long>> times = new ArrayList<>();
        List<Thread> threads = new ArrayList<>();
        for (int i = 0; i < Runtime.getRuntime().availableProcessors(); i++) {
            List<Long> own = new ArrayList<>();
            times.add(own);
            threads.add(new Thread(() -> serve(units, half, measured, end, own)));
        }
        threads.forEach(Thread::start);
        for (Thread thread : threads) {
            thread.join();
        }
        long[] sorted = times.stream().flatMap(List::stream).mapToLong(Long::longValue).sorted().toArray();
        for (double share : new double[] {50, 99, 99.9}) {
            Child.report(share + " %, ms", sorted[(int) Math.min(sorted.length - 1, Math.ceil(sorted.length * share / 100))] / 1e6);
        }
        Child.report("longest, ms", sorted[sorted.length - 1] / 1e6);
        Child.report("writes", sorted.length);
        long pauses = 0;
        long paused = 0;
        for (GarbageCollectorMXBean collector : ManagementFactory.getGarbageCollectorMXBeans()) {
            if (!collector.getName().contains("Cycles") && !collector.getName().contains("Concurrent")) {
                pauses += collector.getCollectionCount();
                paused += collector.getCollectionTime();
            }
        }
        Child.report("pauses", pauses);
        Child.report("paused, ms in all", paused);
        Child.report("longest pause, ms", longestPause.get());
    }

    private static void serve(List<byte[]> units, boolean half, long measured, long end, List<Long> times) {
        try (Transcoder transcoder = Ladder.of(720, 30, 3).builder().open()) {
            long time = 0;
            while (System.nanoTime() < end) {
                for (byte[] unit : units) {
                    long begun = System.nanoTime();
                    byte[] received = unit.clone();
                    transcoder.write(received, Ladder.PICTURE_TIME * time++, picture -> picture.copy());
                    long spent = System.nanoTime() - begun;
                    if (begun >= measured) {
                        times.add(spent);
                    }
                    if (half) {
                        Thread.sleep(spent / 1_000_000, (int) (spent % 1_000_000));
                    }
                }
            }
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    private static void watchPauses(AtomicLong longest) {
        for (GarbageCollectorMXBean collector : ManagementFactory.getGarbageCollectorMXBeans()) {
            if (collector instanceof NotificationEmitter emitter && !collector.getName().contains("Cycles")) {
                emitter.addNotificationListener((notification, ignored) -> {
                    CompositeData about = (CompositeData) ((CompositeData) notification.getUserData()).get("gcInfo");
                    longest.accumulateAndGet((Long) about.get("duration"), Math::max);
                }, null, null);
            }
        }
    }
}
