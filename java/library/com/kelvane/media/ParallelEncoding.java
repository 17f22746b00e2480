package com.kelvane.media;

import java.util.Comparator;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.Executor;
import java.util.concurrent.RejectedExecutionException;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.stream.Stream;

/** Encodes a picture's renditions at the same time, on an executor's threads and the calling one. */
final class ParallelEncoding {
    private final Executor executor;
    private final RenditionOutput[] largestFirst;

    ParallelEncoding(Executor executor, RenditionOutput[] outputs) {
        this.executor = executor;
        largestFirst = Stream.of(outputs).filter(output -> !output.isRemoved())
                .sorted(Comparator.comparingLong(ParallelEncoding::negativeArea)).toArray(RenditionOutput[]::new);
    }

    // A rendition of the source's size is taken for the largest.
    private static long negativeArea(RenditionOutput output) {
        Rendition rendition = output.rendition();
        return rendition.isSourceSize() ? Long.MIN_VALUE : -(long) rendition.width() * rendition.height();
    }

    /**
     * Returns when all renditions are encoded, and throws nothing once the first task is handed over: whatever went wrong
     * is in {@code failures} then.
     */
    void encode(long transcoder, Failures failures) {
        Round round = new Round(transcoder, failures);
        try {
            for (int i = 1; i < largestFirst.length; i++) {
                executor.execute(round);
            }
        } catch (RejectedExecutionException busy) {
            // The calling thread does what nobody else takes.
        } catch (Throwable thrown) { // by a thread factory without memory, or by whatever wraps the executor
            failures.add(thrown);
        }
        round.run();
        round.await();
    }

    /** One picture. Each thread takes the next rendition until none is left; a task that starts late finds none. */
    private final class Round implements Runnable {
        private final long transcoder;
        private final AtomicInteger next = new AtomicInteger();
        private final CountDownLatch left = new CountDownLatch(largestFirst.length);
        private final Failures failures;

        private Round(long transcoder, Failures failures) {
            this.transcoder = transcoder;
            this.failures = failures;
        }

        @Override
        public void run() {
            for (int i = next.getAndIncrement(); i < largestFirst.length; i = next.getAndIncrement()) {
                try {
                    largestFirst[i].encode(transcoder);
                } catch (Throwable noJavaMemory) {
                    failures.add(noJavaMemory);
                } finally {
                    left.countDown();
                }
            }
        }

        /** Native code is at work on the other threads, so nothing may cut this short. */
        private void await() {
            boolean interrupted = false;
            while (true) {
                try {
                    left.await();
                    break;
                } catch (InterruptedException later) {
                    interrupted = true;
                } catch (Throwable noJavaMemory) { // to wait with
                    Thread.onSpinWait();
                }
            }
            if (interrupted) {
                Thread.currentThread().interrupt();
            }
        }
    }
}
