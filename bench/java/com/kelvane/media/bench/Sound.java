package com.kelvane.media.bench;

import com.kelvane.media.AacEncoder;
import com.kelvane.media.OpusEncoder;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;

/** Two minutes of stereo sound at 48 kHz, as PCM and in each format; the MP3 is a test vector, over and over. */
final class Sound {
    static final int SECONDS = 120;
    private static final int SAMPLE_RATE = 48_000;
    private static final int MP3_SAMPLE_RATE = 44_100;
    private static final int MP3_SAMPLES = 1152; // of each channel in a frame
    private static final int[] MP3_KILOBITS = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};

    private Sound() {
    }

    /** Chords that change four times a second, with noise, in blocks of so many samples of each channel. */
    static List<byte[]> pcm(int samples) {
        List<byte[]> blocks = new ArrayList<>();
        Random random = new Random(1);
        for (int at = 0; at + samples <= SECONDS * SAMPLE_RATE; at += samples) {
            ByteBuffer block = ByteBuffer.allocate(samples * 4).order(ByteOrder.LITTLE_ENDIAN);
            for (int i = at; i < at + samples; i++) {
                double t = 2 * Math.PI * i / SAMPLE_RATE;
                double pitch = 220 * Math.pow(2, i / (SAMPLE_RATE / 4) * 7 % 12 / 12.0);
                double noise = 1600 * random.nextDouble();
                block.putShort((short) (6000 * Math.sin(pitch * t) + 3000 * Math.sin(3.01 * pitch * t) + noise));
                block.putShort((short) (6000 * Math.sin(1.5 * pitch * t) + 3 * noise * Math.sin(7 * t)));
            }
            blocks.add(block.array());
        }
        return blocks;
    }

    static List<byte[]> aac(List<byte[]> blocks) {
        List<byte[]> units = new ArrayList<>();
        try (AacEncoder encoder = AacEncoder.builder().sampleRate(SAMPLE_RATE).open()) {
            blocks.forEach(block -> encoder.encode(block).ifPresent(units::add));
        }
        return units;
    }

    static List<byte[]> opus(List<byte[]> frames) {
        try (OpusEncoder encoder = OpusEncoder.builder().open()) {
            return frames.stream().map(encoder::encode).toList();
        }
    }

    /** The frames of a file of MPEG-1 layer III at 44.1 kHz, repeated. */
    static List<byte[]> mp3(Path file) throws IOException {
        byte[] bytes = Files.readAllBytes(file);
        List<byte[]> once = new ArrayList<>();
        for (int at = 0; at + 4 < bytes.length;) {
            if ((bytes[at] & 255) != 0xFF || (bytes[at + 1] & 0xFE) != 0xFA) { // in front of the first frame
                at++;
                continue;
            }
            int kilobits = MP3_KILOBITS[bytes[at + 2] >> 4 & 15];
            int size = 144_000 * kilobits / MP3_SAMPLE_RATE + (bytes[at + 2] >> 1 & 1);
            once.add(java.util.Arrays.copyOfRange(bytes, at, Math.min(at + size, bytes.length)));
            at += size;
        }
        List<byte[]> frames = new ArrayList<>();
        while (frames.size() * MP3_SAMPLES < SECONDS * MP3_SAMPLE_RATE) {
            frames.addAll(once);
        }
        return frames;
    }
}
