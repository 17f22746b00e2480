package com.example;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.PrintWriter;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;

/**
 * A call: one stream in, two renditions and Opus out, over a network that loses packets, to a client that says how it fares.
 * Feedback is lines of text on a TCP port: {@code loss PERCENT}, {@code available BITS-PER-SECOND}, {@code key RENDITION},
 * {@code bye}; each is answered.
 *
 * <p>Arguments: STREAM.h264 (25 pictures a second, over and over) SECONDS PORT SEED, then the losses of sound and of pictures in
 * per mille.
 */
public final class CallServer {
    private static final int TICK = 20; // ms, a packet of sound
    private static final int TICKS_PER_PICTURE = 2;
    private static final List<Rendition> RENDITIONS = List.of(
            Rendition.of(640, 360).bitrate(700_000).keyInterval(480), Rendition.of(320, 180).bitrate(200_000).keyInterval(480));

    private final Transcoder transcoder = Transcoder.builder().renditions(RENDITIONS).open();
    private final OpusEncoder opus = OpusEncoder.builder().application(OpusEncoder.Application.VOIP).channels(1).bitrate(32_000)
            .rateControl(OpusEncoder.RateControl.CONSTRAINED).fec(true).open();
    private volatile boolean over;

    private CallServer() {
    }

    public static void main(String[] arguments) throws Exception {
        List<byte[]> stream = AccessUnit.split(Files.readAllBytes(Path.of(arguments[0])));
        int seconds = Integer.parseInt(arguments[1]);
        CallServer server = new CallServer();
        InetAddress loopback = InetAddress.getLoopbackAddress();
        try (ServerSocket feedback = new ServerSocket(Integer.parseInt(arguments[2]), 10, loopback);
                CallClient client = new CallClient(new Socket(loopback, feedback.getLocalPort()))) {
            System.out.println("feedback on port " + feedback.getLocalPort());
            daemon(() -> server.listen(feedback)).start();
            Thread receiving = daemon(client::run);
            receiving.start();
            try (server.transcoder; server.opus) {
                try (LossyPath path = new LossyPath(client.address(), Long.parseLong(arguments[3]),
                        Integer.parseInt(arguments[4]), Integer.parseInt(arguments[5]))) {
                    server.send(stream, seconds * 1000 / TICK, path);
                }
                receiving.join();
            }
        }
    }

    private static Thread daemon(Runnable work) {
        Thread thread = new Thread(work);
        thread.setDaemon(true);
        return thread;
    }

    private void send(List<byte[]> stream, int ticks, LossyPath path) {
        long begin = System.nanoTime();
        int tick = 0;
        int[] sent = new int[RENDITIONS.size()];
        for (; tick < ticks && !over; tick++) {
            path.send(LossyPath.SOUND, tick, opus.encode(voice(tick)));
            if (tick % TICKS_PER_PICTURE == 0) {
                int picture = tick / TICKS_PER_PICTURE;
                transcoder.write(stream.get(picture % stream.size()), (long) TICK * tick, encoded -> {
                    if (encoded.isAskedFor()) {
                        System.out.println("sent the key picture of rendition " + encoded.index() + " that was asked for");
                    }
                    path.send(encoded.index(), sent[encoded.index()]++, encoded.copy());
                });
            }
            while (System.nanoTime() - begin < TimeUnit.MILLISECONDS.toNanos((long) TICK * (tick + 1))) {
                LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(1));
            }
        }
        path.send(LossyPath.END, tick, new byte[0]);
    }

    /** Something like a voice: a tone that rises, falls and pauses. */
    private byte[] voice(int tick) {
        ByteBuffer pcm = ByteBuffer.allocate(opus.frameSize()).order(ByteOrder.LITTLE_ENDIAN);
        for (int i = 0; i < opus.samplesPerFrame(); i++) {
            double t = tick * TICK / 1000.0 + i / 48_000.0;
            double strength = Math.pow(Math.sin(2 * Math.PI * t), 2);
            pcm.putShort((short) (strength * (7000 * Math.sin(1100 * t + 3 * Math.sin(5 * t)) + 3000 * Math.sin(4400 * t))));
        }
        return pcm.array();
    }

    private void listen(ServerSocket feedback) {
        while (true) {
            try {
                Socket connection = feedback.accept();
                daemon(() -> answer(connection)).start();
            } catch (IOException closed) {
                return;
            }
        }
    }

    private void answer(Socket connection) {
        try (connection; PrintWriter answers = new PrintWriter(connection.getOutputStream(), true);
                BufferedReader lines = new BufferedReader(new InputStreamReader(connection.getInputStream()))) {
            for (String line = lines.readLine(); line != null; line = lines.readLine()) {
                String answer = answer(line);
                System.out.println(line + ": " + answer);
                answers.println(answer);
            }
        } catch (IOException gone) {
            // The client has left.
        }
    }

    // On a thread of the connection's own: what is asked for comes with the next picture and the next packet.
    private String answer(String line) {
        try {
            String[] words = line.split(" ");
            switch (words[0]) {
                case "loss" -> opus.packetLoss(Integer.parseInt(words[1]));
                case "key" -> transcoder.requestKey(Integer.parseInt(words[1]));
                case "available" -> {
                    int bits = Integer.parseInt(words[1]);
                    int sound = Math.max(24_000, Math.min(bits / 10, 48_000));
                    opus.bitrate(sound);
                    transcoder.bitrate(0, (bits - sound) * 3 / 4);
                    transcoder.bitrate(1, (bits - sound) / 4);
                    return "sound " + sound + ", renditions " + (bits - sound) * 3 / 4 + " and " + (bits - sound) / 4;
                }
                case "bye" -> over = true;
                default -> throw new IllegalArgumentException("not known");
            }
            return "done";
        } catch (RuntimeException wrong) {
            return "refused, " + wrong.getMessage();
        }
    }
}
