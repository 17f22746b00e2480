package com.kelvane.media.tool;

import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.Executor;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;

/** The threads of one transcoding beside the one that makes it, which is counted as well. */
final class Cores implements Executor, AutoCloseable {
    private final ThreadMXBean times = ManagementFactory.getThreadMXBean();
    private final List<Thread> threads = new CopyOnWriteArrayList<>();
    private final long begin = times.getCurrentThreadCpuTime();
    private final ExecutorService pool;

    /** @param helpers 0 or more */
    Cores(int helpers) {
        pool = Executors.newFixedThreadPool(Math.max(1, helpers), task -> { // which start with their first task
            Thread thread = new Thread(task, "encoding");
            thread.setDaemon(true);
            threads.add(thread);
            return thread;
        });
    }

    @Override
    public void execute(Runnable task) {
        pool.execute(task);
    }

    /** CPU time of all of them, since this was made. */
    double cpuSeconds() {
        long helpers = threads.stream().mapToLong(thread -> Math.max(0, times.getThreadCpuTime(thread.getId()))).sum();
        return (times.getCurrentThreadCpuTime() - begin + helpers) / 1e9;
    }

    @Override
    public void close() {
        pool.shutdown();
    }
}
