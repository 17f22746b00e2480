package com.kelvane.media.bench;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Iterator;
import java.util.List;
import java.util.concurrent.Semaphore;

/**
 * Laps over the same input, one behind the other in the same engines, that stop after so many units until the others that do
 * the same work have done as many. The clocks run while it works. Without a slice it never stops.
 */
final class Turns {
    private static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();

    /** Nanoseconds of the thread's CPU and by the clock. */
    record Lap(long cpu, long wall) {
    }

    final int slice;
    final int laps;
    private final List<Lap> done = new ArrayList<>();
    private final Semaphore go = new Semaphore(0);
    private final Semaphore halted = new Semaphore(0);
    private volatile boolean ended;
    private int units;
    private long cpu;
    private long wall;
    private long cpuBefore;
    private long wallBefore;

    Turns(int slice, int laps) {
        this.slice = slice;
        this.laps = laps;
    }

    /** One pass without a stop. */
    static Turns none() {
        return new Turns(0, 1);
    }

    /** Units to work on; taking the next one may wait for the others. */
    Iterable<byte[]> over(List<byte[]> list) {
        int all = laps * list.size();
        beginLap();
        return () -> new Iterator<>() {
            @Override
            public boolean hasNext() {
                if (units == (done.size() + 1) * list.size()) {
                    stopClocks();
                    lap(cpu - cpuBefore, wall - wallBefore);
                    startClocks();
                    beginLap();
                }
                return units < all;
            }

            @Override
            public byte[] next() {
                if (slice > 0 && units > 0 && units % slice == 0) {
                    stopClocks();
                    pause();
                    startClocks();
                }
                return list.get(units++ % list.size());
            }
        };
    }

    private void beginLap() {
        stopClocks();
        cpuBefore = cpu;
        wallBefore = wall;
        startClocks();
    }

    void lap(long lapCpu, long lapWall) {
        done.add(new Lap(lapCpu, lapWall));
    }

    List<Lap> done() {
        return done;
    }

    void startClocks() {
        wall -= System.nanoTime();
        cpu -= THREADS.getCurrentThreadCpuTime();
    }

    void stopClocks() {
        cpu += THREADS.getCurrentThreadCpuTime();
        wall += System.nanoTime();
    }

    long cpu() {
        return cpu;
    }

    long wall() {
        return wall;
    }

    void pause() {
        halted.release();
        awaitTurn();
    }

    void awaitTurn() {
        go.acquireUninterruptibly();
    }

    void end() {
        ended = true;
        halted.release();
    }

    /** Lets the pass work until it stops; {@return whether there is more to do} */
    boolean take() {
        if (!ended) {
            go.release();
            halted.acquireUninterruptibly();
        }
        return !ended;
    }

    /** The processors differ, as do their neighbours: all that is compared works on the last one. */
    static Void bindThisThread() throws IOException, InterruptedException {
        bind(Files.readSymbolicLink(Path.of("/proc/thread-self")).getFileName().toString());
        return null;
    }

    static void bind(String thread) throws IOException, InterruptedException {
        int failed = new ProcessBuilder("taskset", "-cp", Integer.toString(Runtime.getRuntime().availableProcessors() - 1), thread)
                .redirectOutput(ProcessBuilder.Redirect.DISCARD).start().waitFor();
        if (failed != 0) {
            throw new IOException("taskset failed");
        }
    }
}
