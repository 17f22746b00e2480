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

    /** Returns when all renditions are encoded. */
    void encode(long transcoder) {
        Round round = new Round(transcoder);
        try {
            for (int i = 1; i < largestFirst.length; i++) {
                executor.execute(round);
            }
        } catch (RejectedExecutionException busy) {
            // The calling thread does what nobody else takes.
        }
        round.run();
        round.await();
        round.failures.rethrow();
    }

    /** One picture. Each thread takes the next rendition until none is left; a task that starts late finds none. */
    private final class Round implements Runnable {
        private final long transcoder;
        private final AtomicInteger next = new AtomicInteger();
        private final CountDownLatch left = new CountDownLatch(largestFirst.length);
        private final Failures failures = new Failures();

        private Round(long transcoder) {
            this.transcoder = transcoder;
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
                }
            }
            if (interrupted) {
                Thread.currentThread().interrupt();
            }
        }
    }
}
