package com.example;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.net.DatagramPacket;
import java.net.DatagramSocket;
import java.net.InetSocketAddress;
import java.nio.ByteBuffer;
import java.util.Random;
import java.util.concurrent.Executors;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.TimeUnit;

/** A network: UDP over loopback, where packets come late and some never. The same seed loses the same ones. */
final class LossyPath implements AutoCloseable {
    static final int SOUND = 2; // renditions have their indices
    static final int END = 3;
    static final int HEADER = 1 + 4; // kind, number

    private static final int DELAY = 10;        // ms
    private static final int LARGEST_JITTER = 30;
    private final DatagramSocket socket = new DatagramSocket();
    private final InetSocketAddress receiver;
    private final Random random;
    private final int soundLoss;
    private final int pictureLoss;
    private final ScheduledExecutorService wire = Executors.newSingleThreadScheduledExecutor();

    /** Losses are in per mille. */
    LossyPath(InetSocketAddress receiver, long seed, int soundLoss, int pictureLoss) throws IOException {
        this.receiver = receiver;
        random = new Random(seed);
        this.soundLoss = soundLoss;
        this.pictureLoss = pictureLoss;
    }

    /** Sends a packet of sound or a picture, which loopback takes whole; a network would want it in 1,200 bytes. */
    void send(int kind, int number, byte[] payload) {
        byte[] packet = ByteBuffer.allocate(HEADER + payload.length).put((byte) kind).putInt(number).put(payload).array();
        int jitter = random.nextInt(LARGEST_JITTER);
        boolean lost = kind != END && random.nextInt(1000) < (kind == SOUND ? soundLoss : pictureLoss);
        if (!lost) {
            // Pictures stay in order; sound may not.
            wire.schedule(() -> transmit(packet), kind == SOUND ? DELAY + jitter : DELAY, TimeUnit.MILLISECONDS);
        }
    }

    private void transmit(byte[] packet) {
        try {
            socket.send(new DatagramPacket(packet, packet.length, receiver));
        } catch (IOException gone) {
            throw new UncheckedIOException(gone);
        }
    }

    /** Returns when all that was sent has left. */
    @Override
    public void close() throws InterruptedException {
        wire.shutdown();
        wire.awaitTermination(1, TimeUnit.MINUTES);
        socket.close();
    }
}
