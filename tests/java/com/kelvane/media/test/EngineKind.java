package com.kelvane.media.test;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.AacEncoder;
import com.kelvane.media.ContainerWriter;
import com.kelvane.media.MediaTrack;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Pcm;
import com.kelvane.media.Picture;
import com.kelvane.media.Pipeline;
import com.kelvane.media.Rendition;
import com.kelvane.media.Resampler;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.VideoEncoder;
import java.util.List;
import java.util.function.Consumer;
import java.util.function.Supplier;

/** An engine and a call that takes it some time. */
public record EngineKind(String name, Supplier<AutoCloseable> open, Consumer<AutoCloseable> call) {
    @Override
    public String toString() {
        return name;
    }

    /** All of them; `unit` is an access unit with a picture. */
    public static List<EngineKind> all(byte[] unit) {
        Picture picture = new Picture(640, 480, 0, new byte[Picture.size(640, 480)]);
        return List.of(
                new EngineKind("Transcoder", () -> Transcoder.builder().rendition(Rendition.of(64, 48).bitrate(100_000)).open(),
                        e -> ((Transcoder) e).write(unit, 0, encoded -> encoded.data())),
                new EngineKind("VideoDecoder", VideoDecoder::open, e -> ((VideoDecoder) e).decode(unit, 0)),
                new EngineKind("VideoEncoder", () -> VideoEncoder.builder().size(640, 480).bitrate(300_000).open(),
                        e -> ((VideoEncoder) e).encode(picture)),
                new EngineKind("Pipeline", () -> Pipeline.builder().open(), e -> ((Pipeline) e).write(unit, 0)),
                new EngineKind("AacDecoder", () -> AacDecoder.open(new byte[] {0x12, 0x10}),
                        e -> ((AacDecoder) e).decode(new byte[2000])),
                new EngineKind("AacEncoder", () -> AacEncoder.builder().open(), e -> ((AacEncoder) e).encode(new byte[4096])),
                new EngineKind("Mp3Decoder", Mp3Decoder::open, e -> ((Mp3Decoder) e).decode(new byte[2000])),
                new EngineKind("OpusDecoder", () -> OpusDecoder.open(2), e -> ((OpusDecoder) e).conceal()),
                new EngineKind("ContainerWriter", () -> ContainerWriter.builder(ContainerWriter.Format.FRAGMENTED_MP4)
                        .track(MediaTrack.h264(640, 480)).open(), e -> ((ContainerWriter) e).write(0, new byte[1 << 20], 0)), // looks for parameter sets
                new EngineKind("Resampler", () -> Resampler.builder().to(44_100, 1).open(),
                        e -> ((Resampler) e).convert(new Pcm(2, 48_000, new byte[8192]), pcm -> { })),
                new EngineKind("OpusEncoder", () -> OpusEncoder.builder().open(),
                        e -> ((OpusEncoder) e).encode(new byte[3840])));
    }
}
