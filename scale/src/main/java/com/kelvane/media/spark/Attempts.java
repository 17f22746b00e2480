package com.kelvane.media.spark;

import java.util.HashSet;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import org.apache.spark.Success$;
import org.apache.spark.scheduler.SparkListener;
import org.apache.spark.scheduler.SparkListenerJobStart;
import org.apache.spark.scheduler.SparkListenerTaskEnd;
import org.apache.spark.scheduler.SparkListenerTaskStart;

/**
 * The attempts at a job's tasks. With speculation there are two at one task, and the slower one, which Spark ends when the
 * other is done, may live on for a moment after the job and write.
 */
final class Attempts extends SparkListener {
    private static final String DESCRIPTION = "spark.job.description";

    private final String job;
    private final Set<Integer> succeeded = new HashSet<>();
    private final Set<Integer> repeated = new HashSet<>();
    private int stage = -1;
    private int running;

    /** @param job its description, which no other has, and which has one stage */
    Attempts(String job) {
        this.job = job;
    }

    @Override
    public synchronized void onJobStart(SparkListenerJobStart start) {
        if (job.equals(start.properties().getProperty(DESCRIPTION))) {
            stage = (Integer) start.stageIds().head();
        }
    }

    @Override
    public synchronized void onTaskStart(SparkListenerTaskStart start) {
        if (start.stageId() != stage) {
            return;
        }
        running++;
        if (start.taskInfo().attemptNumber() > 0) {
            repeated.add(start.taskInfo().index());
        }
    }

    @Override
    public synchronized void onTaskEnd(SparkListenerTaskEnd end) {
        if (end.stageId() != stage) {
            return;
        }
        running--;
        if (end.reason() == Success$.MODULE$) {
            succeeded.add(end.taskInfo().index());
        }
        notifyAll();
    }

    /**
     * Waits until no attempt runs; one on a machine that hangs is not waited for longer than is said. Spark tells of attempts
     * some time after they began and ended, but in order: who knows of each task's success knows of all attempts.
     *
     * @return the tasks at which there was more than one attempt
     */
    synchronized Set<Integer> await(int tasks, int seconds) {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        try {
            for (long left = seconds * 1000L; left > 0 && (succeeded.size() < tasks || running > 0);
                    left = TimeUnit.NANOSECONDS.toMillis(end - System.nanoTime())) {
                wait(left);
            }
        } catch (InterruptedException interrupted) {
            Thread.currentThread().interrupt();
        }
        return repeated;
    }
}
