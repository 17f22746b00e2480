package com.kelvane.media.test;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.AacEncoder;
import com.kelvane.media.AccessUnit;
import com.kelvane.media.MediaException;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Pcm;
import com.kelvane.media.Pipeline;
import com.kelvane.media.ProcessingModule;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.HexFormat;
import java.util.List;
import java.util.Random;

/**
 * Runs every engine once and prints a line of all that comes out, so that two builds can be compared: what they decode, which is
 * the same everywhere, in lines that begin with "decoded"; what they encode, "encoded", and sound, whose last bits differ from one
 * kind of processor to the next. Modules that are named after the folder of the vectors throw, and that has to be told.
 */
public final class Digests {
    /** With the system property {@code test.virtual}, four virtual threads at once, from Java 21 on; they print in any order. */
    public static void main(String[] arguments) throws Exception {
        if (!Boolean.getBoolean("test.virtual")) {
            run(arguments);
            return;
        }
        List<Thread> threads = new ArrayList<>();
        List<Exception> failures = Collections.synchronizedList(new ArrayList<>());
        for (int i = 0; i < 4; i++) {
            threads.add((Thread) Thread.class.getMethod("startVirtualThread", Runnable.class).invoke(null, (Runnable) () -> {
                try {
                    run(arguments);
                } catch (IOException | RuntimeException e) {
                    failures.add(e);
                }
            }));
        }
        for (Thread thread : threads) {
            thread.join();
        }
        if (!failures.isEmpty()) {
            throw failures.get(0);
        }
    }

    private static void run(String[] arguments) throws IOException {
        Path vectors = Path.of(arguments[0]);
        for (String name : List.of("baseline", "bframes", "fields", "size_change", "slices", "refresh", "odd", "yuv422")) {
            List<byte[]> units = AccessUnit.split(Files.readAllBytes(vectors.resolve(name + ".h264")));
            // Pictures of an odd size or with more colour go through FFmpeg's scaler, which rounds as the processor does.
            String what = (List.of("odd", "yuv422").contains(name) ? "scaled " : "decoded ") + name;
            try (VideoDecoder decoder = VideoDecoder.open()) {
                for (byte[] unit : units) {
                    decoder.decode(unit, 0).ifPresent(picture -> print(what, picture.i420()));
                }
                decoder.drain(picture -> print(what, picture.i420()));
            }
        }
        try (Transcoder ladder = Transcoder.builder().rendition(Rendition.of(320, 180).bitrate(400_000).keyInterval(10))
                .rendition(Rendition.of(160, 90).bitrate(100_000)).open()) {
            long time = 0;
            for (byte[] unit : AccessUnit.split(Files.readAllBytes(vectors.resolve("baseline.h264")))) {
                ladder.write(unit, time += 40, picture -> print("encoded " + picture.rendition().width(), picture.copy()));
            }
        }
        sound(vectors);
        for (String module : Arrays.asList(arguments).subList(1, arguments.length)) {
            throwing(Path.of(module), AccessUnit.split(Files.readAllBytes(vectors.resolve("baseline.h264"))));
        }
    }

    private static void sound(Path vectors) throws IOException {
        byte[] noise = new byte[4096];
        try (AacEncoder aac = AacEncoder.builder().sampleRate(48_000).open(); OpusEncoder opus = OpusEncoder.builder().open();
                AacDecoder aacDecoder = AacDecoder.open(new byte[] {0x11, (byte) 0x90});
                OpusDecoder opusDecoder = OpusDecoder.open(2); Mp3Decoder mp3 = Mp3Decoder.open()) {
            for (int i = 0; i < 20; i++) {
                new Random(i).nextBytes(noise);
                byte[] packet = opus.encode(Arrays.copyOf(noise, opus.frameSize()));
                print("encoded opus", packet);
                opusDecoder.decode(packet).map(Pcm::bytes).ifPresent(pcm -> print("encoded opus, decoded", pcm));
                aac.encode(noise).ifPresent(unit -> {
                    print("encoded aac", unit);
                    aacDecoder.decode(unit).map(Pcm::bytes).ifPresent(pcm -> print("encoded aac, decoded", pcm));
                });
            }
            byte[] file = Files.readAllBytes(vectors.resolve("mono.mp3"));
            int first = 0;
            while (file[first] != -1 || (file[first + 1] & 0xE0) != 0xE0) {
                first++; // over what tells of the piece
            }
            int frame = first; // the headers of one file begin alike
            for (int i = first + 1; i < file.length - 2; i++) {
                if (file[i] == -1 && file[i + 1] == file[first + 1] && (file[i + 2] & 0x0C) == (file[first + 2] & 0x0C)) {
                    mp3.decode(Arrays.copyOfRange(file, frame, i)).map(Pcm::bytes).ifPresent(pcm -> print("sound mp3", pcm));
                    frame = i;
                }
            }
        }
    }

    private static void throwing(Path module, List<byte[]> units) {
        long failed;
        try (Pipeline pipeline = Pipeline.builder().module(ProcessingModule.load(module)).setting("any", "thing").open()) {
            for (byte[] unit : units) {
                pipeline.write(unit, 0);
            }
            failed = pipeline.statistics().failed();
        } catch (MediaException | IllegalArgumentException refused) {
            failed = 1;
        }
        if (failed == 0) {
            throw new IllegalStateException(module + " threw, and nobody was told");
        }
        System.out.println("caught what " + module.getFileName() + " throws");
    }

    private static void print(String what, byte[] content) {
        try {
            byte[] digest = MessageDigest.getInstance("SHA-256").digest(content);
            System.out.println(what + ": " + content.length + " bytes, " + HexFormat.of().formatHex(digest));
        } catch (GeneralSecurityException e) {
            throw new IllegalStateException(e);
        }
    }
}
