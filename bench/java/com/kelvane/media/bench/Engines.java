package com.kelvane.media.bench;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.AacEncoder;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Pipeline;
import com.kelvane.media.ProcessingModule;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.transform.codec.AACDecoder;
import com.kelvane.media.transform.codec.AACEncoder;
import com.kelvane.media.transform.codec.MPADecoder;
import com.kelvane.media.transform.codec.NOpusDecoder;
import com.kelvane.media.transform.codec.NOpusEncoder;
import java.util.List;

/** One stream through each of the other engines, from open to close: through the API, and through the native methods. */
final class Engines {
    static final byte[] AAC_LC_48_KHZ_STEREO = {0x11, (byte) 0x90};
    static final int PIPELINE_BITRATE = 2_000_000;
    private static final int SAMPLE_RATE = 48_000;
    private static final int OPUS_BITRATE = 64_000;
    private static final int BYTES_PER_SAMPLE = 4; // of both channels

    private Engines() {
    }

    static Contest.Pass decode(List<byte[]> units) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            try (VideoDecoder decoder = VideoDecoder.open()) {
                long time = 0;
                for (byte[] unit : turns.over(units)) {
                    decoder.decode(unit, Ladder.PICTURE_TIME * time++).ifPresent(picture -> {
                        output.add(picture.i420(), picture.i420().length);
                        decoder.recycle(picture);
                    });
                }
                decoder.drain(picture -> output.add(picture.i420(), picture.i420().length));
            }
        });
    }

    static Contest.Pass pipeline(List<byte[]> units, int frameRate, ProcessingModule module) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            Pipeline.Builder builder = Pipeline.builder().frameRate(frameRate).bitrate(PIPELINE_BITRATE);
            try (Pipeline pipeline = (module == null ? builder : builder.module(module)).open()) {
                long time = 0;
                for (byte[] unit : turns.over(units)) {
                    pipeline.write(unit, Ladder.PICTURE_TIME * time++)
                            .ifPresent(encoded -> output.add(encoded.bytes(), encoded.bytes().length));
                }
                pipeline.drain(encoded -> output.add(encoded.bytes(), encoded.bytes().length));
            }
        });
    }

    static Contest.Pass aacDecoder(List<byte[]> units) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            try (AacDecoder decoder = AacDecoder.open(AAC_LC_48_KHZ_STEREO)) {
                for (byte[] unit : turns.over(units)) {
                    decoder.decode(unit).ifPresent(pcm -> {
                        output.add(pcm.bytes(), pcm.bytes().length);
                        decoder.recycle(pcm);
                    });
                }
            }
        });
    }

    static Contest.Pass aacDecoderNatives(List<byte[]> units) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            byte[] info = new byte[5];
            byte[] pcm = new byte[4096];
            long handle = AACDecoder.open(AAC_LC_48_KHZ_STEREO);
            for (byte[] unit : turns.over(units)) {
                int samples = AACDecoder.decode(unit, info, pcm, handle);
                if (samples > 0) {
                    output.add(pcm, samples * BYTES_PER_SAMPLE);
                }
            }
            AACDecoder.close(handle);
        });
    }

    static Contest.Pass aacEncoder(List<byte[]> blocks) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            try (AacEncoder encoder = AacEncoder.builder().sampleRate(SAMPLE_RATE).open()) {
                for (byte[] block : turns.over(blocks)) {
                    encoder.encode(block).ifPresent(unit -> output.add(unit, unit.length));
                }
            }
        });
    }

    static Contest.Pass aacEncoderNatives(List<byte[]> blocks) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            byte[] info = new byte[6];
            byte[] unit = new byte[4096];
            long handle = AACEncoder.open(2, SAMPLE_RATE);
            for (byte[] block : turns.over(blocks)) {
                int size = AACEncoder.encode(block, info, unit, handle);
                if (size > 0) {
                    output.add(unit, size);
                }
            }
            AACEncoder.close(handle);
        });
    }

    static Contest.Pass mp3Decoder(List<byte[]> frames) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            try (Mp3Decoder decoder = Mp3Decoder.open()) {
                for (byte[] frame : turns.over(frames)) {
                    decoder.decode(frame).ifPresent(pcm -> {
                        output.add(pcm.bytes(), pcm.bytes().length);
                        decoder.recycle(pcm);
                    });
                }
            }
        });
    }

    static Contest.Pass mp3DecoderNatives(List<byte[]> frames) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            byte[] info = new byte[5];
            byte[] pcm = new byte[4608];
            long handle = MPADecoder.open();
            for (byte[] frame : turns.over(frames)) {
                info[0] = 0;
                MPADecoder.decode(frame, info, pcm, handle);
                if (info[0] == 1) {
                    output.add(pcm, ((info[3] & 255) << 8 | info[4] & 255) * BYTES_PER_SAMPLE);
                }
            }
            MPADecoder.close(handle);
        });
    }

    static Contest.Pass opusDecoder(List<byte[]> packets) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            try (OpusDecoder decoder = OpusDecoder.open(2)) {
                for (byte[] packet : turns.over(packets)) {
                    decoder.decode(packet).ifPresent(pcm -> {
                        output.add(pcm.bytes(), pcm.bytes().length);
                        decoder.recycle(pcm);
                    });
                }
            }
        });
    }

    static Contest.Pass opusDecoderNatives(List<byte[]> packets) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            byte[] pcm = new byte[5760 * BYTES_PER_SAMPLE];
            long handle = NOpusDecoder.open(2, 0);
            for (byte[] packet : turns.over(packets)) {
                output.add(pcm, NOpusDecoder.decode(packet, pcm, handle) * BYTES_PER_SAMPLE);
            }
            NOpusDecoder.close(handle);
        });
    }

    static Contest.Pass opusEncoder(List<byte[]> frames) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            try (OpusEncoder encoder = OpusEncoder.builder().bitrate(OPUS_BITRATE).open()) {
                for (byte[] frame : turns.over(frames)) {
                    byte[] packet = encoder.encode(frame);
                    output.add(packet, packet.length);
                }
            }
        });
    }

    static Contest.Pass opusEncoderNatives(List<byte[]> frames) {
        return (checked, turns) -> Spent.by(checked, turns, output -> {
            byte[] packet = new byte[3828];
            long handle = NOpusEncoder.open(2, OPUS_BITRATE, 20);
            for (byte[] frame : turns.over(frames)) {
                output.add(packet, NOpusEncoder.encode(frame, packet, handle));
            }
            NOpusEncoder.close(handle);
        });
    }
}
