package com.kelvane.media.bench;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.AacEncoder;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;

/** One stream through each sound engine, from open to close, as a server would drive it. Sound is stereo. */
public final class AudioLoops {
    private AudioLoops() {
    }

    public static void decodeAac(byte[] config, byte[][] accessUnits) {
        try (AacDecoder decoder = AacDecoder.open(config)) {
            for (byte[] accessUnit : accessUnits) {
                decoder.decode(accessUnit);
            }
        }
    }

    public static void encodeAac(int sampleRate, byte[][] blocks) {
        try (AacEncoder encoder = AacEncoder.builder().sampleRate(sampleRate).open()) {
            for (byte[] block : blocks) {
                encoder.encode(block);
            }
        }
    }

    public static void decodeMp3(byte[][] frames) {
        try (Mp3Decoder decoder = Mp3Decoder.open()) {
            for (byte[] frame : frames) {
                decoder.decode(frame);
            }
        }
    }

    public static void decodeOpus(byte[][] packets) {
        try (OpusDecoder decoder = OpusDecoder.open(2)) {
            for (byte[] packet : packets) {
                decoder.decode(packet);
            }
        }
    }

    public static void encodeOpus(int bitrate, byte[][] frames) {
        try (OpusEncoder encoder = OpusEncoder.builder().bitrate(bitrate).open()) {
            for (byte[] frame : frames) {
                encoder.encode(frame);
            }
        }
    }
}
