package com.kelvane.media.bench;

import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.transform.codec.AVCEncoder;
import com.kelvane.media.transform.codec.MIRVProcessor;
import java.nio.ByteBuffer;
import java.util.List;
import java.util.concurrent.Executor;
import java.util.stream.Collectors;

/** Renditions of one stream, encoded through the API, through the native methods, and as the floor is told of them. */
record Ladder(int frameRate, List<Rung> rungs) {
    static final long PICTURE_TIME = 33; // milliseconds from access unit to access unit, whatever the rate: it changes no work

    static {
        AVCEncoder.loadLibrary(System.getProperty("bench.openh264"));
    }

    record Rung(int width, int height, int bitrate) {
        @Override
        public String toString() {
            return width + "x" + height + "@" + bitrate;
        }
    }

    /** The first rungs of a ladder that begins with a height. */
    static Ladder of(int height, int frameRate, int count) {
        List<Rung> all = List.of(new Rung(1920, 1080, 4_500_000), new Rung(1280, 720, 2_500_000), new Rung(854, 480, 1_200_000),
                new Rung(640, 360, 800_000), new Rung(426, 240, 400_000), new Rung(256, 144, 200_000));
        return new Ladder(frameRate, all.stream().filter(rung -> rung.height <= height).limit(count).toList());
    }

    String forFloor() {
        return System.getProperty("bench.openh264") + " " + frameRate + " "
                + rungs.stream().map(Rung::toString).collect(Collectors.joining(" "));
    }

    Transcoder.Builder builder() {
        Transcoder.Builder builder = Transcoder.builder();
        for (Rung rung : rungs) {
            builder.rendition(Rendition.of(rung.width, rung.height).bitrate(rung.bitrate).frameRate(frameRate)
                    .keyInterval(2 * frameRate));
        }
        return builder;
    }

    Contest.Pass api(List<byte[]> units, Executor parallel) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            Transcoder.Builder builder = parallel == null ? builder() : builder().parallel(parallel);
            try (Transcoder transcoder = builder.open()) {
                long time = 0;
                for (byte[] unit : turns.over(units)) {
                    transcoder.write(unit, PICTURE_TIME * time++, picture -> output.add(picture.data()));
                }
                transcoder.drain(picture -> output.add(picture.data()));
            }
        });
    }

    /** What the native methods call. */
    public record Listener(Spent.Output output) {
        public void receiveVideo(int index, int timestamp, ByteBuffer data) {
            if (data != null) {
                output.add(data);
            }
        }
    }

    Contest.Pass natives(List<byte[]> units) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            long handle = MIRVProcessor.open(rungs.size());
            for (int id = 1; id <= rungs.size(); id++) {
                Rung rung = rungs.get(id - 1);
                MIRVProcessor.apply(id, "videoWidth", Integer.toString(rung.width), handle);
                MIRVProcessor.apply(id, "videoHeight", Integer.toString(rung.height), handle);
                MIRVProcessor.apply(id, "videoBR", Integer.toString(rung.bitrate), handle);
                MIRVProcessor.apply(id, "videoFPS", Integer.toString(frameRate), handle);
                MIRVProcessor.apply(id, "videoKey", Integer.toString(2 * frameRate), handle);
            }
            MIRVProcessor.start(handle);
            Listener listener = new Listener(output);
            long time = 0;
            for (byte[] unit : turns.over(units)) {
                MIRVProcessor.write(listener, PICTURE_TIME * time++, unit, handle);
            }
            while (MIRVProcessor.drain(listener, handle) == 1) {
                continue; // the listener has it
            }
            MIRVProcessor.close(handle);
        });
    }
}
