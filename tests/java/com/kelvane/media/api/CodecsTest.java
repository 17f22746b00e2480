package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.AacEncoder;
import com.kelvane.media.AccessUnit;
import com.kelvane.media.Mp3Decoder;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Pcm;
import com.kelvane.media.Picture;
import com.kelvane.media.Pipeline;
import com.kelvane.media.ProcessingModule;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.VideoEncoder;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.stream.LongStream;
import org.junit.jupiter.api.Test;

final class CodecsTest {
    /** The picture of every new size as well, and times that rise. */
    @Test
    void losesNoPictureWhenTheSizeChanges() {
        List<AccessUnit> source = Vectors.timed(Vectors.CHANGING);
        List<String> sizes = new ArrayList<>();
        List<Long> times = new ArrayList<>();
        try (VideoDecoder decoder = VideoDecoder.open()) {
            for (AccessUnit unit : source) {
                decoder.decode(unit.bytes(), unit.time()).ifPresent(picture -> {
                    sizes.add(picture.width() + "x" + picture.height());
                    times.add(picture.time());
                    decoder.recycle(picture);
                });
            }
            decoder.drain(picture -> {
                sizes.add(picture.width() + "x" + picture.height());
                times.add(picture.time());
            });
        }
        List<String> expected = new ArrayList<>();
        for (String size : List.of("160x96", "320x180", "160x96")) {
            expected.addAll(java.util.Collections.nCopies(5, size));
        }
        assertEquals(expected, sizes);
        assertEquals(LongStream.range(0, 15).mapToObj(i -> 40 * i).toList(), times);
    }

    @Test
    void encodesPicturesAndLeavesThemAlone() {
        List<Picture> originals = Vectors.decode(Vectors.units(Vectors.REORDERED));
        List<byte[]> stream = new ArrayList<>();
        try (VideoEncoder encoder = VideoEncoder.builder().size(320, 180).frameRate(10).bitrate(1_000_000).open()) {
            for (Picture picture : originals) {
                byte[] before = picture.i420().clone();
                AccessUnit unit = encoder.encode(picture).orElseThrow();
                assertTrue(Arrays.equals(before, picture.i420()));
                assertEquals(picture.time(), unit.time());
                assertEquals(stream.size() % 20 == 0, unit.isKey());
                stream.add(unit.bytes());
            }
        }
        List<Picture> decoded = Vectors.decode(stream);
        assertEquals(originals.size(), decoded.size());
        for (int i = 0; i < decoded.size(); i++) {
            assertTrue(Vectors.psnr(originals.get(i), decoded.get(i)) > 30, "picture " + i);
        }
    }

    /** A module that drops every other picture and delays each by 10 ms more than the last, over a stream that reorders. */
    @Test
    void runsModulesOnPicturesAtTheirOwnTimes() {
        List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
        ProcessingModule module = ProcessingModule.load(Path.of(System.getProperty("test.modules"), "every_other.so"));
        try (Pipeline pipeline = Pipeline.builder().module(module).setting("delay", "10").frameRate(25).open();
                Pipeline bare = Pipeline.builder().passThrough().open()) {
            List<Long> times = new ArrayList<>();
            for (AccessUnit unit : source) {
                pipeline.write(unit.bytes(), unit.time()).ifPresent(out -> times.add(out.time()));
                AccessUnit same = bare.write(unit.bytes(), unit.time()).orElseThrow();
                assertTrue(Arrays.equals(unit.bytes(), same.bytes()) && same.time() == unit.time());
            }
            pipeline.drain(out -> times.add(out.time()));
            assertEquals(0, bare.drain(out -> times.add(null)));
            Pipeline.Statistics figures = pipeline.statistics();
            assertEquals(List.of(30L, 15L, 0L), List.of(figures.pictures(), figures.dropped(), figures.failed()));
            assertEquals(LongStream.range(0, 15).mapToObj(i -> (80 + 20) * i).toList(), times);
        }
    }

    private static byte[] tone(int samples, int channels, int rate) {
        byte[] pcm = new byte[samples * channels * 2];
        for (int i = 0; i < samples * channels; i++) {
            int value = (int) (12_000 * Math.sin(2 * Math.PI * 440 * (i / channels) / rate));
            pcm[2 * i] = (byte) value;
            pcm[2 * i + 1] = (byte) (value >> 8);
        }
        return pcm;
    }

    /** What is left of a tone behind an encoder's lead-in, as a ratio of signal to noise in dB. */
    private static double quality(byte[] sound, byte[] decoded, int leadInBytes) {
        double signal = 0;
        double noise = 0;
        for (int i = 8192; i + 8192 < sound.length && i + leadInBytes + 1 < decoded.length; i += 2) {
            int expected = (sound[i] & 255) + (sound[i + 1] << 8);
            int heard = (decoded[i + leadInBytes] & 255) + (decoded[i + leadInBytes + 1] << 8);
            signal += (double) expected * expected;
            noise += (double) (expected - heard) * (expected - heard);
        }
        return 10 * Math.log10(signal / Math.max(noise, 1));
    }

    @Test
    void bringsSoundThroughAacAndOpus() {
        for (int channels = 1; channels <= 2; channels++) {
            byte[] sound = tone(1024 * 40, channels, 48_000);
            int rateIndex = 3; // 48000 Hz
            byte[] config = {(byte) (2 << 3 | rateIndex >> 1), (byte) (rateIndex << 7 | channels << 3)};
            ByteArrayOutputStream decoded = new ByteArrayOutputStream();
            try (AacEncoder encoder = AacEncoder.builder().channels(channels).sampleRate(48_000).open();
                    AacDecoder decoder = AacDecoder.open(config)) {
                for (int at = 0; at < sound.length; at += encoder.blockSize()) {
                    encoder.encode(Arrays.copyOfRange(sound, at, at + encoder.blockSize()))
                            .flatMap(decoder::decode).ifPresent(pcm -> decoded.writeBytes(pcm.bytes()));
                }
                encoder.drain(unit -> decoder.decode(unit).ifPresent(pcm -> decoded.writeBytes(pcm.bytes())));
                assertEquals(List.of(channels, 48_000), List.of(decoder.channels(), decoder.sampleRate()));
            }
            byte[] heard = decoded.toByteArray();
            int leadIn = AacEncoder.LEAD_IN * channels * 2;
            assertTrue(heard.length >= leadIn + sound.length, heard.length + " bytes");
            assertTrue(quality(sound, heard, leadIn) > 20, "AAC, " + quality(sound, heard, leadIn) + " dB");
        }
        byte[] sound = tone(960 * 40, 2, 48_000);
        ByteArrayOutputStream decoded = new ByteArrayOutputStream();
        try (OpusEncoder encoder = OpusEncoder.builder().bitrate(128_000).open(); OpusDecoder decoder = OpusDecoder.open(2)) {
            for (int at = 0; at < sound.length; at += encoder.frameSize()) {
                byte[] packet = encoder.encode(Arrays.copyOfRange(sound, at, at + encoder.frameSize()));
                decoded.writeBytes(decoder.decode(packet).orElseThrow().bytes());
            }
            assertFalse(decoder.decode(new byte[] {-1, -1, -1}).isPresent());
            assertEquals(5760, decoder.conceal().orElseThrow().samples());
        }
        assertTrue(quality(sound, decoded.toByteArray(), OpusEncoder.LEAD_IN * 4) > 20, "Opus");
    }

    @Test
    void readsChannelsAndRateFromMp3Frames() throws IOException {
        for (String name : List.of("mono.mp3", "stereo.mp3")) {
            byte[] file = Files.readAllBytes(Path.of(System.getProperty("test.data"), name));
            int start = 0;
            while ((file[start] & 255) != 255 || (file[start + 1] & 0xe0) != 0xe0) {
                start++;
            }
            try (Mp3Decoder decoder = Mp3Decoder.open()) {
                Pcm pcm = decoder.decode(Arrays.copyOfRange(file, start, Math.min(file.length, start + 1500))).orElseThrow();
                assertEquals(name.equals("mono.mp3") ? 1 : 2, pcm.channels());
                assertTrue(List.of(44_100, 48_000, 32_000, 22_050, 24_000).contains(pcm.sampleRate()));
                assertTrue(List.of(576, 1152).contains(pcm.samples()));
            }
        }
    }
}
