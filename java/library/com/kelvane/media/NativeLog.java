package com.kelvane.media;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.System.Logger.Level;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.time.Instant;
import java.util.Objects;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Consumer;
import java.util.regex.Pattern;

/**
 * What the native library tells of itself, line by line: what was opened and closed, with which settings, and why a call gives
 * nothing. The first engine of this package that is opened has nothing told, unless a method of this class was called before;
 * any later call changes that at once.
 *
 * <table class="striped">
 * <caption>Where the lines go</caption>
 * <thead>
 * <tr><th scope="col">Call<th scope="col">The engines' lines<th scope="col">OpenH264's and FFmpeg's own
 * </thead>
 * <tbody>
 * <tr><th scope="row">{@link #discard}<td>nowhere; no line is even put together<td>nowhere
 * <tr><th scope="row">{@link #toLoggers}<td>to a {@link System.Logger} for each engine, {@code com.kelvane.media.Transcoder}
 *     for instance, at its level<td>to {@code com.kelvane.media.OpenH264}, from warnings on, and
 *     {@code com.kelvane.media.FFmpeg}
 * <tr><th scope="row">{@link #toFile}<td>to a file, each with time, level and engine<td>the same
 * <tr><th scope="row">{@link #to}<td>to code of the caller's<td>the same
 * <tr><th scope="row">{@link #toStandardStreams}<td>to standard output, what is missing or refused to standard error<td>to
 *     standard error
 * </tbody>
 * </table>
 *
 * <p>No thread that uses an engine ever waits for loggers, files or receivers: a daemon thread hands the lines on, up to 0.1 s
 * later. Of more than 512 lines that wait, the rest is dropped, {@linkplain #dropped counted}, and told of in a line of its own;
 * a line of more than some 460 bytes is cut. The standard streams are written on the spot, and a pipe there that nobody reads
 * stops every engine.
 *
 * <p>The choice holds for everything that uses the same native library: all engines of this class loader, also those that are
 * used by the bare methods of {@code com.kelvane.media.transform.codec}. A program that has those alone and never calls this
 * class prints to the standard streams. FFmpeg's log is one for the process: over several class loaders the last choice holds.
 * An OpenH264 encoder keeps what was chosen when it was opened. What processing modules print themselves is theirs.
 *
 * <p>The thread keeps this class's loader from being collected. An application that is undeployed calls {@link #discard} at its
 * end, as does a program that wants the last lines: it hands on what still waits, unless that takes more than a second.
 */
public final class NativeLog {
    private static final int STANDARD = 0;
    private static final int DISCARDED = 1;
    private static final int KEPT = 2;

    private static final int MOST_WAITING = 512; // lines

    private static final Level[] LEVELS = {Level.DEBUG, Level.INFO, Level.WARNING, Level.ERROR};
    private static final AtomicLong REFUSED = new AtomicLong(); // by receivers
    private static final Object CHOICE = new Object();

    private static HandOver handOver;

    private NativeLog() {
    }

    /**
     * A line.
     *
     * @param level how much it matters
     * @param engine the class of this package that it is about, {@code "OpenH264"} or {@code "FFmpeg"}
     * @param text without control characters
     */
    public record Line(Level level, String engine, String text) {
    }

    /**
     * Has nothing told from now on.
     *
     * @throws MediaException if the native library is missing, as all of these methods do
     */
    public static void discard() {
        choose(DISCARDED, null);
    }

    /** Has the lines printed to the standard streams, as the native library does by itself. */
    public static void toStandardStreams() {
        choose(STANDARD, null);
    }

    /** Hands the lines to the logger of each engine. */
    public static void toLoggers() {
        to(line -> System.getLogger("com.kelvane.media." + line.engine()).log(line.level(), line.text()));
    }

    /**
     * Appends the lines to a file.
     *
     * @param file is made if it is not there
     * @throws IOException if it cannot be written to
     */
    public static void toFile(Path file) throws IOException {
        Natives.load();
        to(new FileLines(FileChannel.open(file, StandardOpenOption.CREATE, StandardOpenOption.APPEND)));
    }

    /**
     * Hands the lines to a receiver, one after the other.
     *
     * @param receiver is called on a thread of its own; a line over which it throws is counted as dropped
     */
    public static void to(Consumer<? super Line> receiver) {
        choose(KEPT, Objects.requireNonNull(receiver, "receiver"));
    }

    /** {@return the lines that were dropped so far, because too many waited or the receiver threw} */
    public static long dropped() {
        Natives.load();
        return droppedLines() + REFUSED.get();
    }

    private static void choose(int destination, Consumer<? super Line> receiver) {
        Natives.load();
        synchronized (CHOICE) {
            choose(destination);
            if (handOver != null) {
                handOver.end();
            }
            HandOver next = receiver == null ? null : new HandOver(receiver);
            handOverTo(next);
            if (next != null) {
                next.start();
            }
        }
    }

    // The lines that wait have one reader at a time; an earlier one may still be with a receiver that does not return.
    private static synchronized void handOverTo(HandOver next) {
        if (handOver != null && handOver.isAlive()) {
            // What it had no time for is not the next one's.
            for (int i = 0; i < MOST_WAITING && take(new byte[HandOver.LONGEST]) != 0; i++) {
                REFUSED.incrementAndGet();
            }
        }
        handOver = next;
    }

    private static synchronized int takeFor(HandOver reader) {
        return reader == handOver ? take(reader.line) : 0;
    }

    static native void choose(int destination);

    private static native int take(byte[] line);

    private static native long droppedLines();

    /** What has nothing told until somebody chooses. */
    static final class Default {
        static {
            choose(DISCARDED);
        }

        private Default() {
        }

        static void apply() {
            // The initialiser has done it, once.
        }
    }

    private static final class HandOver extends Thread {
        private static final int PERIOD = 100; // ms
        private static final int PATIENCE = 1000; // ms
        private static final int LONGEST = 480; // bytes
        private static final Pattern CONTROL = Pattern.compile("[\\p{Cc}\\p{Cf}\\u2028\\u2029]+");

        private final Consumer<? super Line> receiver;
        private final byte[] line = new byte[LONGEST];
        private final CountDownLatch ending = new CountDownLatch(1);
        private long told = droppedLines();

        HandOver(Consumer<? super Line> receiver) {
            super("kelvane-media log");
            setDaemon(true);
            this.receiver = receiver;
        }

        /** Hands on what waits, and no more. */
        void end() {
            ending.countDown();
            if (Thread.currentThread() == this) {
                return; // the receiver itself has chosen anew
            }
            try {
                join(PATIENCE);
            } catch (InterruptedException hurry) {
                Thread.currentThread().interrupt();
            }
            interrupt(); // it may write to a file that takes nothing
        }

        @Override
        public void run() {
            boolean ended;
            do {
                ended = hasEnded();
                handOn();
            } while (!ended);
            if (receiver instanceof FileLines file) {
                file.close();
            }
        }

        private boolean hasEnded() {
            try {
                return ending.await(PERIOD, TimeUnit.MILLISECONDS);
            } catch (InterruptedException byTheReceiver) {
                return false;
            }
        }

        private void handOn() {
            for (int taken = takeFor(this); taken != 0; taken = takeFor(this)) {
                String[] parts = new String(line, 0, taken >> 8, StandardCharsets.UTF_8).split("\n", 2);
                hand(LEVELS[taken & 0xff], parts[0], CONTROL.matcher(parts[1]).replaceAll(" ").strip());
            }
            long dropped = droppedLines();
            if (dropped > told) {
                hand(Level.WARNING, "NativeLog", dropped - told + " lines were dropped");
                told = dropped;
            }
        }

        private void hand(Level level, String engine, String text) {
            try {
                receiver.accept(new Line(level, engine, text));
            } catch (Throwable thrown) {
                REFUSED.incrementAndGet();
            }
        }
    }

    private record FileLines(FileChannel file) implements Consumer<Line> {
        @Override
        public void accept(Line line) {
            String text = Instant.now() + " " + line.level + " " + line.engine + ": " + line.text + "\n";
            ByteBuffer bytes = ByteBuffer.wrap(text.getBytes(StandardCharsets.UTF_8));
            try {
                while (bytes.hasRemaining()) {
                    file.write(bytes);
                }
            } catch (IOException full) {
                throw new UncheckedIOException(full);
            }
        }

        void close() {
            try {
                file.close();
            } catch (IOException lost) {
                REFUSED.incrementAndGet();
            }
        }
    }
}
