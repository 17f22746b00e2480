package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.Semaphore;
import java.util.concurrent.TimeUnit;
import java.util.function.Function;

/**
 * Reads a live stream: standard input, a pipe with a name, whose writers may come and go, or a file, as fast as it plays.
 * What is read waits in a queue of so many bytes, after which the writer has to wait.
 */
public final class LiveInput {
    /** What comes out, in this order. */
    public sealed interface Item permits Opened, LivePacket, Ended {
    }

    /**
     * A stream begins, with times of its own.
     *
     * @param audio the sound to carry, or null
     */
    public record Opened(VideoTrack video, AudioTrack audio) implements Item {
    }

    /**
     * A stream has ended.
     *
     * @param problem what was wrong with it, or null
     * @param last whether nothing does
     */
    public record Ended(RuntimeException problem, boolean last) implements Item {
    }

    private static final int MOST_WAITING = 1 << 24; // bytes
    private static final int OVERHEAD = 256;         // bytes of a packet that has none
    private static final int CHUNK = 1 << 15;        // bytes
    private static final int FILE_TYPE = 0170000;
    private static final int FIFO = 0010000;

    private final Path path; // null for standard input
    private final boolean isFifo;
    private final Function<VideoTrack, AudioTrack> chooseSound;
    private final BlockingQueue<Item> items = new LinkedBlockingQueue<>();
    private final Semaphore room = new Semaphore(MOST_WAITING);
    private volatile long bytesRead;

    /** @param path absolute; null for standard input */
    public LiveInput(Path path, Function<VideoTrack, AudioTrack> chooseSound) throws IOException {
        this.path = path;
        this.chooseSound = chooseSound;
        if (path != null && !Files.exists(path)) {
            throw new Failure("%s: no such file", path);
        }
        isFifo = path != null && ((int) Files.getAttribute(path, "unix:mode") & FILE_TYPE) == FIFO;
    }

    public String name() {
        return path == null ? "standard input" : path.getFileName().toString();
    }

    /** Begins to read, in a thread of its own that ends with the input. */
    public void start() {
        Thread thread = new Thread(this::run, "input");
        thread.setDaemon(true);
        thread.start();
    }

    /** The next item, null when none has come in so many milliseconds. */
    public Item poll(long milliseconds) {
        try {
            Item item = items.poll(milliseconds, TimeUnit.MILLISECONDS);
            room.release(item == null ? 0 : size(item));
            return item;
        } catch (InterruptedException interrupted) {
            return new Ended(null, true);
        }
    }

    /** Whether something has come that was not taken yet. */
    public boolean hasMore() {
        return !items.isEmpty();
    }

    /** Bytes that came, of the container. */
    public long bytesRead() {
        return bytesRead;
    }

    private static int size(Item item) {
        return item instanceof LivePacket ? ((LivePacket) item).bytes().length + OVERHEAD : 0;
    }

    private void put(Item item) throws InterruptedException {
        room.acquire(size(item));
        items.add(item);
    }

    private void run() {
        try {
            try {
                if (path != null && !isFifo) {
                    playFile();
                } else {
                    do {
                        try (InputStream stream = path == null ? System.in : new FileInputStream(path.toFile())) {
                            readStream(stream);
                        }
                        put(new Ended(null, !isFifo));
                    } while (isFifo);
                }
                put(new Ended(null, true));
            } catch (IOException unreadable) {
                put(new Ended(new Failure("%s cannot be read: %s", name(), Failure.reason(unreadable)), true));
            } catch (RuntimeException unusable) {
                put(new Ended(unusable, true));
            }
        } catch (InterruptedException interrupted) {
            Thread.currentThread().interrupt();
        }
    }

    private void playFile() throws IOException, InterruptedException {
        VideoTrack video = VideoTrack.of(MediaFile.open(path));
        video.checkPictures();
        try (LivePackets packets = open(video, false)) {
            handOn(packets);
        }
    }

    /** Reads to the end; begins anew where FFmpeg cannot go on. */
    private void readStream(InputStream stream) throws IOException, InterruptedException {
        while (true) {
            StreamHead head = StreamHead.read(Path.of(name()), stream);
            bytesRead += head.bytes().length;
            if (head.bytes().length == 0) {
                return;
            }
            VideoTrack video;
            try {
                video = VideoTrack.of(head.file());
                video.checkPictures();
            } catch (Failure notYet) { // what comes next may be better
                put(new Ended(notYet, false));
                continue;
            }
            try (LivePackets packets = open(video, true)) {
                Thread reader = new Thread(() -> {
                    try {
                        handOn(packets);
                    } catch (IOException | InterruptedException ended) {
                        packets.stop();
                    }
                }, "packets");
                reader.setDaemon(true);
                reader.start();
                boolean more = pump(head.bytes(), stream, packets.input());
                reader.join();
                if (!more) {
                    return;
                }
                put(new Ended(null, false));
            }
        }
    }

    private LivePackets open(VideoTrack video, boolean piped) throws InterruptedException {
        AudioTrack audio = chooseSound.apply(video);
        put(new Opened(video, audio));
        return new LivePackets(video, audio, piped);
    }

    private void handOn(LivePackets packets) throws IOException, InterruptedException {
        for (LivePacket packet = packets.next(); packet != null; packet = packets.next()) {
            if (path != null && !isFifo) {
                bytesRead += packet.bytes().length;
            }
            put(packet);
        }
    }

    /** Returns whether the stream goes on, which the program no longer takes. */
    private boolean pump(byte[] head, InputStream stream, OutputStream program) throws IOException {
        byte[] chunk = new byte[CHUNK];
        int length = head.length;
        byte[] next = head;
        while (length >= 0) {
            try {
                program.write(next, 0, length);
                program.flush();
            } catch (IOException ended) {
                return true;
            }
            length = stream.read(chunk);
            bytesRead += Math.max(0, length);
            next = chunk;
        }
        try {
            program.close();
        } catch (IOException ended) {
            // It has closed its end before.
        }
        return false;
    }
}
