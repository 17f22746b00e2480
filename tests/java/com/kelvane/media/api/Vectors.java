package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Picture;
import com.kelvane.media.VideoDecoder;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.IntStream;
import jdk.jfr.Recording;
import jdk.jfr.consumer.RecordedEvent;
import jdk.jfr.consumer.RecordingFile;

/** The streams of tests/data, and what the tests of the API do with them time and again. */
final class Vectors {
    /** 30 pictures of 320x180, with B-frames that others refer to: two are always held back. */
    static final String REORDERED = "bframes.h264";

    /** 30 pictures of 176x144. */
    static final String PLAIN = "baseline.h264";

    /** 5 pictures each of 160x96, 320x180, 160x96. */
    static final String CHANGING = "size_change.h264";

    /** One picture as it came out, copied. */
    record Encoded(int index, long time, boolean key, ByteBuffer bytes) {
        static Encoded of(EncodedPicture picture) {
            return new Encoded(picture.index(), picture.time(), picture.isKey(), ByteBuffer.wrap(picture.copy()));
        }
    }

    private Vectors() {
    }

    static List<byte[]> units(String name) {
        try {
            return AccessUnit.split(Files.readAllBytes(Path.of(System.getProperty("test.data"), name)));
        } catch (IOException missing) {
            throw new UncheckedIOException(missing);
        }
    }

    /** A stream with presentation times in milliseconds, 40 from picture to picture; found by decoding it. */
    static List<AccessUnit> timed(String name) {
        List<byte[]> units = units(name);
        List<Long> order = decode(units).stream().map(Picture::time).toList();
        return IntStream.range(0, units.size()).filter(i -> order.contains((long) i))
                .mapToObj(i -> new AccessUnit(units.get(i), 40L * order.indexOf((long) i))).toList();
    }

    /** Each picture's time is the number of its unit. */
    static List<Picture> decode(List<byte[]> units) {
        List<Picture> pictures = new ArrayList<>();
        try (VideoDecoder decoder = VideoDecoder.open()) {
            for (int i = 0; i < units.size(); i++) {
                decoder.decode(units.get(i), i).ifPresent(pictures::add);
            }
            decoder.drain(pictures::add);
        }
        return pictures;
    }

    /** This library's events while something runs. */
    static List<RecordedEvent> recorded(Runnable work) throws IOException {
        Path file = Files.createTempFile("kelvane", ".jfr");
        try (Recording recording = new Recording()) {
            recording.enable("com.kelvane.media.PictureTranscoded").withThreshold(Duration.ZERO);
            recording.start();
            work.run();
            recording.stop();
            recording.dump(file);
            return RecordingFile.readAllEvents(file).stream()
                    .filter(event -> event.getEventType().getName().startsWith("com.kelvane.media.")).toList();
        } finally {
            Files.delete(file);
        }
    }

    /** The smallest of all pictures' {@link #psnr}. */
    static double worst(List<Picture> originals, List<byte[]> units) {
        List<Picture> decoded = decode(units);
        assertEquals(originals.size(), decoded.size());
        return IntStream.range(0, decoded.size()).mapToDouble(i -> psnr(originals.get(i), decoded.get(i))).min().orElseThrow();
    }

    /** Peak signal-to-noise ratio of two pictures' luma in dB. */
    static double psnr(Picture one, Picture other) {
        double squares = 0;
        int samples = one.width() * one.height();
        for (int i = 0; i < samples; i++) {
            double difference = (one.i420()[i] & 255) - (other.i420()[i] & 255);
            squares += difference * difference;
        }
        return 10 * Math.log10(255.0 * 255.0 * samples / squares);
    }
}
