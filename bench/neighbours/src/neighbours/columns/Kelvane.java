package neighbours.columns;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Picture;
import com.kelvane.media.Pipeline;
import com.kelvane.media.ProcessingModule;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.VideoEncoder;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import neighbours.Case;
import neighbours.Column;

/** This library: a transcoder, codecs of each kind and their settings. Its jars are those of build/maven-repository. */
public final class Kelvane implements Column {
    private static final int WIDTH = 320;
    private static final int HEIGHT = 240;

    @Override
    public String title() {
        return "this API";
    }

    @Override
    public List<String> jars() {
        return List.of("kelvane-media-");
    }

    @Override
    public String smoke() {
        List<AccessUnit> units = new ArrayList<>();
        try (Transcoder transcoder = transcoder(160, 120)) {
            for (byte[] unit : stream(10)) {
                transcoder.write(unit, 40L * units.size(), picture -> units.add(new AccessUnit(picture.copy(), 0)));
            }
        }
        try (VideoDecoder decoder = VideoDecoder.open()) {
            return units.stream().filter(unit -> decoder.decode(unit.bytes(), 0).isPresent()).count()
                    + " pictures of 10 through decoder, transcoder and decoder";
        }
    }

    private static Transcoder transcoder(int width, int height) {
        return Transcoder.builder().rendition(Rendition.of(width, height).bitrate(200_000)).open();
    }

    /** Key and other pictures of a slope that moves. */
    private static List<byte[]> stream(int pictures) {
        List<byte[]> units = new ArrayList<>();
        try (VideoEncoder encoder = VideoEncoder.builder().size(WIDTH, HEIGHT).bitrate(500_000).open()) {
            for (int number = 0; number < pictures; number++) {
                byte[] i420 = new byte[Picture.size(WIDTH, HEIGHT)];
                for (int i = 0; i < WIDTH * HEIGHT; i++) {
                    i420[i] = (byte) (i % WIDTH / 2 + i / WIDTH / 4 + 5 * number);
                }
                Arrays.fill(i420, WIDTH * HEIGHT, i420.length, (byte) 128);
                encoder.encode(new Picture(WIDTH, HEIGHT, 0, i420)).ifPresent(unit -> units.add(unit.bytes()));
            }
        }
        return units;
    }

    private static String used(AutoCloseable engine, Case.Action use) throws Exception {
        engine.close();
        return Case.attemptOf(use);
    }

    private static String closedPicture() {
        VideoDecoder decoder = VideoDecoder.open();
        Picture picture = decoder.decode(stream(1).get(0), 0).orElseThrow();
        byte[] before = picture.i420().clone();
        decoder.close();
        return Arrays.equals(before, picture.i420()) ? "unchanged" : "changed";
    }

    private static String keptPicture() {
        try (Transcoder transcoder = transcoder(160, 120)) {
            List<com.kelvane.media.EncodedPicture> kept = new ArrayList<>();
            transcoder.write(stream(1).get(0), 0, kept::add);
            return Case.attempt(() -> kept.get(0).data());
        }
    }

    private static String shared(boolean close) {
        List<byte[]> units = stream(1);
        VideoDecoder decoder = VideoDecoder.open();
        byte[] expected = decoder.decode(units.get(0), 0).orElseThrow().i420();
        return Case.hammer(() -> Arrays.equals(decoder.decode(units.get(0), 0).orElseThrow().i420(), expected),
                close ? decoder::close : () -> { });
    }

    private static String inCallback(Case.Action misuse, Transcoder transcoder) {
        List<String> inside = new ArrayList<>();
        String outside = Case.attempt(() -> transcoder.write(stream(1).get(0), 0, picture -> {
            try {
                misuse.run();
                inside.add("returned");
            } catch (RuntimeException thrown) {
                inside.add("threw");
                throw thrown;
            } catch (Exception thrown) {
                throw new IllegalArgumentException(thrown);
            }
        }));
        return "in the callback: " + inside + "; write: " + outside + "; the next write: "
                + Case.attempt(() -> transcoder.write(stream(1).get(0), 0, picture -> { }));
    }

    private static String guardCost() {
        byte[] nothing = new byte[0];
        Mp3Decoder decoder = Mp3Decoder.open();
        return Case.nanoseconds(calls -> {
            for (int i = 0; i < calls; i++) {
                decoder.decode(nothing);
            }
        });
    }

    @Override
    public List<Case> cases() {
        return List.of(
                new Case(3, "transcoder", () -> {
                    Transcoder transcoder = transcoder(160, 120);
                    byte[] unit = stream(1).get(0);
                    return used(transcoder, () -> transcoder.write(unit, 0, picture -> { }));
                }),
                new Case(3, "Opus encoder", () -> {
                    OpusEncoder encoder = OpusEncoder.builder().open();
                    return used(encoder, () -> encoder.encode(new byte[encoder.frameSize()]));
                }),
                new Case(3, "picture of a closed decoder", Kelvane::closedPicture),
                new Case(3, "encoded picture after its callback", Kelvane::keptPicture),
                new Case(4, "transcoder, Opus decoder", () -> {
                    Transcoder transcoder = transcoder(160, 120);
                    OpusDecoder decoder = OpusDecoder.open(2);
                    transcoder.close();
                    decoder.close();
                    return Case.attemptOf(transcoder::close) + ", " + Case.attemptOf(decoder::close);
                }),
                new Case(5, "decoder", () -> shared(false)),
                new Case(5, "decoder, closed meanwhile", () -> shared(true)),
                new Case(6, "closes", () -> {
                    Transcoder transcoder = transcoder(160, 120);
                    return inCallback(transcoder::close, transcoder);
                }),
                new Case(6, "re-enters", () -> {
                    Transcoder transcoder = transcoder(160, 120);
                    byte[] unit = stream(1).get(0);
                    return inCallback(() -> transcoder.write(unit, 0, picture -> { }), transcoder);
                }),
                new Case(6, "throws", () -> inCallback(() -> {
                    throw new java.io.UncheckedIOException(new java.io.IOException("full"));
                }, transcoder(160, 120))),
                new Case(7, "null", () -> Case.attempt(() -> VideoDecoder.open().decode(null, 0))),
                new Case(7, "sound given to a video decoder",
                        () -> Case.attempt(() -> VideoDecoder.open().decode(new byte[] {0x21, 0x10, 4, 0x60}, 0))),
                new Case(8, "wrong values", () -> Case.attempt(() -> Rendition.of(641, 8)) + "; "
                        + Case.attempt(() -> Rendition.of(640, 360).frameRate(0)) + "; "
                        + Case.attempt(() -> Transcoder.builder().rendition(Rendition.of(640, 360)).open())),
                new Case(8, "a module that is none",
                        () -> Case.attempt(() -> ProcessingModule.load(Path.of("/lib/x86_64-linux-gnu/libc.so.6")))),
                new Case(8, "a module's setting without a module",
                        () -> Case.attempt(() -> Pipeline.builder().setting("region", "1,2").open())),
                new Case(9, "decoders", () -> Case.forget(200, () -> VideoDecoder.open().decode(stream(1).get(0), 0))),
                new Case(9, "transcoder, with traces",
                        () -> Case.forget(1, () -> transcoder(160, 120))).with("-Dkelvane.leak.trace=true"),
                new Case(13, "Mp3Decoder.decode of nothing", Kelvane::guardCost));
    }
}
