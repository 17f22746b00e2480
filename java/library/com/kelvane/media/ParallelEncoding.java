package com.kelvane.media;

import java.util.concurrent.Executor;
import java.util.concurrent.RejectedExecutionException;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * Encodes pictures' renditions at the same time, on an executor's threads and the calling one. Each rendition has its pictures
 * in their order, one at a time; pictures end in their order too.
 *
 * <p>Whoever looks for work takes the oldest picture's largest rendition that nobody is at: the calling thread waits for the
 * oldest picture first.
 */
final class ParallelEncoding {
    private final Executor executor;
    private final long transcoder;
    private final Gate gate;
    private final boolean keeps;
    // Pictures under way, oldest first, from `first` on. All that changes is guarded by this object.
    private final PictureAtWork[] places;
    private int first;
    private int count;
    private Round round;

    /** @param lookahead pictures that are copied for the encoders; with 0 the one at hand is encoded where it is */
    ParallelEncoding(Executor executor, int lookahead, long transcoder, Gate gate) {
        this.executor = executor;
        this.transcoder = transcoder;
        this.gate = gate;
        keeps = lookahead > 0;
        places = new PictureAtWork[Math.max(1, lookahead)];
        for (int i = 0; i < places.length; i++) {
            places[i] = new PictureAtWork(i);
        }
    }

    /** {@return whether no picture is under way} */
    boolean isEmpty() {
        return count == 0;
    }

    boolean isFull() {
        return count == places.length;
    }

    /** {@return where the next picture goes, if there is room} */
    PictureAtWork next() {
        return places[(first + count) % places.length];
    }

    /**
     * Has the {@linkplain #next next} picture encoded. Decoding may go on when this returns.
     *
     * @param failures get what the executor throws, but for refusals
     */
    void handOver(Failures failures) {
        if (keeps) {
            next().keep(transcoder);
        }
        boolean mustStay = !next().isKept();
        Round present = count > 0 ? round : new Round();
        int tasks = add(present) - (mustStay ? 1 : 0);
        try {
            for (int queued = present.queued.get(); queued < tasks; queued++) {
                present.queued.incrementAndGet();
                executor.execute(present);
            }
        } catch (RejectedExecutionException busy) {
            present.queued.decrementAndGet(); // the calling thread does what nobody else takes
        } catch (Throwable thrown) { // by a thread factory without memory, or by whatever wraps the executor
            present.queued.decrementAndGet();
            failures.add(thrown);
        }
        if (mustStay) {
            settle();
        }
    }

    /** {@return how many threads would find work} */
    private synchronized int add(Round present) {
        round = present;
        PictureAtWork picture = next();
        count++;
        picture.left = 0;
        int found = 0;
        for (Encoding encoding : picture.largestFirst()) {
            encoding.waiting = encoding.isWanted();
            picture.left += encoding.waiting ? 1 : 0;
            // One that is busy has somebody who looks for more behind it.
            found += encoding.waiting && !encoding.output.busy ? 1 : 0;
        }
        return found;
    }

    /** {@return the oldest picture if it has ended; it is no longer under way then} */
    synchronized PictureAtWork ended() {
        if (count == 0 || places[first].left > 0) {
            return null;
        }
        PictureAtWork oldest = places[first];
        first = (first + 1) % places.length;
        count--;
        return oldest;
    }

    /** Takes part until the oldest picture has ended. */
    void awaitOldest() {
        takePart(1);
    }

    /** Takes part until all pictures have ended; they are under way still. */
    void settle() {
        takePart(count);
    }

    // Native code is at work on the other threads, so nothing may cut this short; it needs no memory of Java's.
    private void takePart(int pictures) {
        boolean interrupted = false;
        while (true) {
            Encoding taken;
            synchronized (this) {
                if (haveEnded(pictures)) {
                    break;
                }
                taken = take();
                if (taken == null) {
                    try {
                        wait();
                    } catch (InterruptedException later) {
                        interrupted = true;
                    }
                    continue;
                }
            }
            encode(taken);
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    private boolean haveEnded(int pictures) {
        for (int i = 0; i < pictures; i++) {
            if (places[(first + i) % places.length].left > 0) {
                return false;
            }
        }
        return true;
    }

    /** {@return work that is the caller's from now on; null when there is none at present} */
    private synchronized Encoding take() {
        for (int i = 0; i < count; i++) {
            for (Encoding encoding : places[(first + i) % places.length].largestFirst()) {
                if (encoding.waiting && !encoding.output.busy) {
                    encoding.waiting = false;
                    encoding.output.busy = true;
                    return encoding;
                }
            }
        }
        return null;
    }

    private void encode(Encoding taken) {
        if (gate.enter()) {
            taken.picture.encode(taken, transcoder);
            gate.leave();
        }
        synchronized (this) {
            taken.output.busy = false;
            taken.picture.left--;
            notifyAll();
        }
    }

    /** The task: does what there is to do. Those that start late, when nothing is under way any more, find nothing. */
    private final class Round implements Runnable {
        private final AtomicInteger queued = new AtomicInteger(); // and not yet started

        @Override
        public void run() {
            queued.decrementAndGet();
            for (Encoding taken = take(); taken != null; taken = take()) {
                encode(taken);
            }
        }
    }

    /** Lets threads use a native transcoder between the calls of the one that it belongs to, until it is freed. */
    static final class Gate {
        private int inside;
        private boolean closed;

        private synchronized boolean enter() {
            inside += closed ? 0 : 1;
            return !closed;
        }

        private synchronized void leave() {
            inside--;
            notifyAll();
        }

        /** Returns when nobody is inside. */
        synchronized void close() {
            closed = true;
            boolean interrupted = false;
            while (inside > 0) {
                try {
                    wait();
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
