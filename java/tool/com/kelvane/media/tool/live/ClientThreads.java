package com.kelvane.media.tool.live;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.Executor;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.ThreadPoolExecutor;
import java.util.concurrent.TimeUnit;
import java.util.function.Consumer;

/**
 * Threads that answer clients, of low priority: a few, so that any number of clients leaves the processors to the
 * encoders; and one more, or two, for each that is held up by a client that sends or reads slowly, or not at all, which takes
 * no time but the others'.
 */
final class ClientThreads implements Executor, AutoCloseable {
    private static final int LOWER = 10;            // by which their niceness is above the others'
    private static final int NICE = 16;             // its place in what the system tells of a thread
    private static final int USUAL = 3;
    private static final int MOST = 2048;
    private static final int STACK = 1 << 17;       // bytes
    private static final int IDLE = 10;             // seconds after which a thread ends
    private static final int PERIOD = 100;          // ms between looks at the threads
    private static final long HELD_UP = 300_000_000; // nanoseconds without progress

    private final Set<Task> running = ConcurrentHashMap.newKeySet();
    private final ThreadLocal<Task> current = new ThreadLocal<>();
    private final ThreadPoolExecutor threads = new ThreadPoolExecutor(USUAL, MOST, IDLE, TimeUnit.SECONDS,
            new LinkedBlockingQueue<>(), task -> thread(task, "http"));
    private final Thread watch = thread(this::watch, "http watch");

    private final class Task implements Runnable {
        private final Runnable work;
        private volatile long progress;

        Task(Runnable work) {
            this.work = work;
        }

        @Override
        public void run() {
            progress = System.nanoTime();
            running.add(this);
            current.set(this);
            try {
                work.run();
            } finally {
                running.remove(this);
            }
        }
    }

    /** @param serve begins to give work; its threads, and those that they start, have the lower priority, too */
    ClientThreads(Consumer<? super ClientThreads> serve) {
        threads.allowCoreThreadTimeOut(true);
        Thread first = thread(() -> {
            lowerPriority();
            watch.start();
            serve.accept(this);
        }, "http start");
        first.start();
        try {
            first.join();
        } catch (InterruptedException interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    /** Lowers that of this thread, which those that it starts inherit; Java's own priorities do nothing on Linux. */
    private static void lowerPriority() {
        try {
            Path thread = Files.readSymbolicLink(Path.of("/proc/thread-self"));
            String state = Files.readString(Path.of("/proc").resolve(thread).resolve("stat"));
            int nice = Integer.parseInt(state.substring(state.lastIndexOf(')') + 2).split(" ")[NICE]) + LOWER;
            new ProcessBuilder("/usr/bin/renice", "-n", Integer.toString(nice), "-p", thread.getFileName().toString())
                    .redirectErrorStream(true).redirectOutput(ProcessBuilder.Redirect.DISCARD).start().waitFor();
        } catch (IOException | NumberFormatException notThere) {
            // Then all have the same.
        } catch (InterruptedException interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    private static Thread thread(Runnable work, String name) {
        Thread thread = new Thread(null, work, name, STACK);
        thread.setDaemon(true);
        return thread;
    }

    @Override
    public void execute(Runnable work) {
        threads.execute(new Task(work));
    }

    /** Says that the client of the thread that calls this has taken something. */
    void progress() {
        current.get().progress = System.nanoTime();
    }

    private void watch() {
        try {
            while (true) {
                Thread.sleep(PERIOD);
                long now = System.nanoTime();
                int heldUp = (int) running.stream().filter(task -> now - task.progress > HELD_UP).count();
                threads.setCorePoolSize(Math.min(MOST, USUAL + 2 * heldUp));
            }
        } catch (InterruptedException closed) {
            threads.shutdownNow();
        }
    }

    @Override
    public void close() {
        watch.interrupt();
    }
}
