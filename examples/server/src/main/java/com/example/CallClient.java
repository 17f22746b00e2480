package com.example;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.Pcm;
import com.kelvane.media.VideoDecoder;
import java.io.IOException;
import java.io.PrintWriter;
import java.io.UncheckedIOException;
import java.net.DatagramPacket;
import java.net.DatagramSocket;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.Socket;
import java.nio.ByteBuffer;
import java.util.List;
import java.util.Locale;
import java.util.Optional;
import java.util.TreeMap;

/** Receives a call, fills what was lost, and says once a second how it fares: to the user and to the server. */
final class CallClient implements AutoCloseable {
    private static final int PACKETS_HELD = 3; // of sound, against jitter: 60 ms
    private static final int PACKETS_A_SECOND = 50;

    private final DatagramSocket socket = new DatagramSocket(0, InetAddress.getLoopbackAddress());
    private final Socket server;
    private final PrintWriter feedback;
    private final List<Pictures> renditions = List.of(new Pictures(0), new Pictures(1));
    private final OpusDecoder opus = OpusDecoder.open(1);
    private final TreeMap<Integer, byte[]> waiting = new TreeMap<>();
    private int played; // packets of sound
    private int lost;   // and of these, in this second
    private int copies;
    private long samples;
    private double loss; // per cent, over some seconds

    CallClient(Socket server) throws IOException {
        this.server = server;
        socket.setReceiveBufferSize(1 << 20);
        feedback = new PrintWriter(server.getOutputStream(), true);
    }

    InetSocketAddress address() {
        return (InetSocketAddress) socket.getLocalSocketAddress();
    }

    void run() {
        DatagramPacket packet = new DatagramPacket(new byte[1 << 16], 1 << 16);
        try {
            for (int kind = 0; kind != LossyPath.END;) {
                socket.receive(packet);
                ByteBuffer received = ByteBuffer.wrap(packet.getData(), 0, packet.getLength());
                kind = received.get();
                int number = received.getInt();
                byte[] payload = new byte[received.remaining()];
                received.get(payload);
                if (kind < renditions.size()) {
                    renditions.get(kind).add(number, payload);
                } else if (kind == LossyPath.SOUND) {
                    waiting.put(number, payload);
                    playUpTo(waiting.lastKey() - PACKETS_HELD);
                }
            }
            playUpTo(waiting.isEmpty() ? 0 : waiting.lastKey());
        } catch (IOException gone) {
            throw new UncheckedIOException(gone);
        }
    }

    private void playUpTo(int last) {
        for (; played <= last; played++) {
            byte[] packet = waiting.remove(played);
            byte[] next = waiting.get(played + 1);
            Optional<Pcm> sound = packet != null ? opus.decode(packet) : next != null ? opus.decodeLost(next) : opus.conceal();
            samples += sound.map(Pcm::samples).orElse(0);
            lost += packet == null ? 1 : 0;
            copies += packet == null && next != null && OpusDecoder.carriesFec(next) ? 1 : 0;
            if ((played + 1) % PACKETS_A_SECOND == 0) {
                report();
            }
        }
    }

    private void report() {
        System.out.printf(Locale.ROOT, "second %d: %s; %s; sound %d samples, %d packets lost, %d made of copies%n",
                (played + 1) / PACKETS_A_SECOND, renditions.get(0), renditions.get(1), samples, lost, copies);
        loss += (100.0 * lost / PACKETS_A_SECOND - loss) / 4;
        feedback.println("loss " + Math.round(loss));
        renditions.forEach(Pictures::beginSecond);
        lost = 0;
        copies = 0;
        samples = 0;
    }

    /** One rendition, of which nothing can be decoded from a lost picture to the next key picture. */
    private final class Pictures {
        private final VideoDecoder decoder = VideoDecoder.open();
        private final int index;
        private int expected;
        private boolean broken;
        private int bytes; // in this second, as are these
        private int decoded;
        private int keys;

        Pictures(int index) {
            this.index = index;
        }

        void add(int number, byte[] picture) {
            boolean key = new AccessUnit(picture, number).isKey();
            if (number != expected && !broken) {
                System.out.println("rendition " + index + ": picture " + expected + " was lost");
                feedback.println("key " + index);
            }
            broken = !key && (broken || number != expected);
            expected = number + 1;
            bytes += picture.length;
            keys += key ? 1 : 0;
            if (!broken) {
                decoder.decode(picture, number).ifPresent(pixels -> {
                    decoded++;
                    decoder.recycle(pixels);
                });
            }
        }

        void beginSecond() {
            bytes = 0;
            decoded = 0;
            keys = 0;
        }

        @Override
        public String toString() {
            return String.format(Locale.ROOT, "rendition %d %d kbit/s, %d pictures, %d keys", index, bytes * 8 / 1000, decoded, keys);
        }
    }

    @Override
    public void close() throws IOException {
        renditions.forEach(rendition -> rendition.decoder.close());
        opus.close();
        server.close();
        socket.close();
    }
}
