package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AacDecoder;
import com.kelvane.media.AacEncoder;
import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.OpusDecoder;
import com.kelvane.media.OpusEncoder;
import com.kelvane.media.Pcm;
import com.kelvane.media.Picture;
import com.kelvane.media.Pipeline;
import com.kelvane.media.ProcessingModule;
import com.kelvane.media.Rendition;
import com.kelvane.media.Resampler;
import com.kelvane.media.Transcoder;
import com.kelvane.media.VideoDecoder;
import com.kelvane.media.VideoEncoder;
import com.kelvane.media.transform.codec.NOpusEncoder;
import java.nio.BufferOverflowException;
import java.nio.ByteBuffer;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Optional;
import java.util.Random;
import java.util.function.Consumer;
import java.util.function.Function;
import java.util.stream.LongStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;

final class CodecsTest {
    /** The picture of every new size as well, and times that rise. */
    @Test
    void losesNoPictureWhenTheSizeChanges() {
        List<AccessUnit> source = Vectors.timed(Vectors.CHANGING);
        List<String> sizes = new ArrayList<>();
        List<Long> times = new ArrayList<>();
        try (VideoDecoder decoder = VideoDecoder.open()) {
            Consumer<Picture> note = picture -> {
                sizes.add(picture.width() + "x" + picture.height());
                times.add(picture.time());
            };
            for (AccessUnit unit : source) {
                decoder.decode(unit.bytes(), unit.time()).ifPresent(note.andThen(decoder::recycle));
            }
            decoder.drain(note);
        }
        List<String> expected = new ArrayList<>();
        for (String size : List.of("160x96", "320x180", "160x96")) {
            expected.addAll(Collections.nCopies(5, size));
        }
        assertEquals(expected, sizes);
        assertEquals(LongStream.range(0, 15).mapToObj(i -> 40 * i).toList(), times);
    }

    /** Each result is the caller's until it is given back, and the next one then says nothing of it. */
    @Test
    void decodesIntoSoundThatWasGivenBack() {
        List<byte[]> blocks = new ArrayList<>();
        for (int i = 0; i < 20; i++) {
            byte[] block = new byte[4096];
            new Random(i).nextBytes(block);
            blocks.add(block);
        }
        try (AacEncoder aac = AacEncoder.builder().sampleRate(48_000).open(); OpusEncoder opus = OpusEncoder.builder().open();
                AacDecoder plainAac = AacDecoder.open(new byte[] {0x11, (byte) 0x90});
                AacDecoder thriftyAac = AacDecoder.open(new byte[] {0x11, (byte) 0x90});
                OpusDecoder plainOpus = OpusDecoder.open(2); OpusDecoder thriftyOpus = OpusDecoder.open(2)) {
            thriftyAac.recycle(new Pcm(1, 8_000, new byte[4096])); // of another shape: not to be handed out
            int compared = 0;
            for (byte[] block : blocks) {
                byte[] unit = aac.encode(block).orElse(new byte[] {1, 2, 3}); // of which there are no samples
                compared += same(plainAac.decode(unit), thriftyAac.decode(unit), thriftyAac::recycle);
                byte[] packet = opus.encode(Arrays.copyOf(block, 3840));
                compared += same(plainOpus.decode(packet), thriftyOpus.decode(packet), thriftyOpus::recycle);
            }
            assertTrue(compared > 30, () -> "too few");
        }
    }

    /** A lost packet is as long as the one before it, and what cannot be decoded has no length. */
    @Test
    void concealsAsLongAsThePacketBefore() {
        List<Integer> samples = new ArrayList<>();
        try (OpusDecoder decoder = OpusDecoder.open(1)) {
            Consumer<Optional<Pcm>> note = pcm -> samples.add(pcm.map(Pcm::samples).orElse(0));
            note.accept(decoder.conceal());
            for (int toc : new int[] {0xE0, 0xF0, 0x18}) { // packets of silence: 2.5 and 10 ms, 60 ms for speech
                note.accept(decoder.decode(new byte[] {(byte) toc}));
                note.accept(decoder.conceal());
                note.accept(decoder.conceal(Duration.ofMillis(40)));
                note.accept(decoder.decode(new byte[] {-1, -1, -1}));
                note.accept(decoder.conceal());
            }
        }
        assertEquals(List.of(960, 120, 120, 1920, 0, 120, 480, 480, 1920, 0, 480, 2880, 2880, 1920, 0, 2880), samples);
    }

    /** AAC at 44.1 kHz to Opus of any frame length: as long, as loud and in step, whatever the lengths of the pieces. */
    @Test
    void resamplesAacForOpus() {
        for (int milliseconds : new int[] {5, 20, 60}) {
            byte[] tone = tone(44_100, 44_100 * 3);
            List<byte[]> packets = new ArrayList<>();
            List<Pcm> sound = new ArrayList<>();
            OpusEncoder.Builder settings = OpusEncoder.builder().frameDuration(Duration.ofMillis(milliseconds));
            try (AacEncoder aac = AacEncoder.builder().sampleRate(44_100).bitrate(160_000).open(); OpusEncoder opus = settings.open();
                    AacDecoder decoder = AacDecoder.open(new byte[] {0x12, 0x10}); OpusDecoder back = OpusDecoder.open(2);
                    Resampler resampler = Resampler.builder().from(44_100, 2).frame(opus.samplesPerFrame()).open()) {
                Consumer<Pcm> send = frame -> packets.add(opus.encode(frame.bytes()));
                Consumer<byte[]> unit = bytes -> decoder.decode(bytes).ifPresent(pcm -> resampler.convert(pcm, send));
                for (int at = 0; at + aac.blockSize() <= tone.length; at += aac.blockSize()) {
                    aac.encode(Arrays.copyOfRange(tone, at, at + aac.blockSize())).ifPresent(unit);
                }
                resampler.drain(send);
                packets.forEach(packet -> back.decode(packet).ifPresent(sound::add));
                assertEquals(opus.samplesPerFrame(), sound.get(0).samples());
                long expected = (tone.length / aac.blockSize() - 1) * 1024L * 48_000 / 44_100;
                assertEquals((expected + opus.samplesPerFrame()) / opus.samplesPerFrame(), packets.size());
                assertTrue(gain(tone(48_000, 48_000 * 3), sound, opus.leadIn() + AacEncoder.LEAD_IN * 480 / 441) > 0.97);
            }
        }
    }

    private static byte[] tone(int rate, int samples) {
        java.nio.ByteBuffer tone = java.nio.ByteBuffer.allocate(4 * samples).order(java.nio.ByteOrder.LITTLE_ENDIAN);
        for (int i = 0; i < samples; i++) {
            double t = 2 * Math.PI * i / rate;
            tone.putShort((short) (9000 * Math.sin(700 * t) * Math.sin(3 * t))).putShort((short) (9000 * Math.sin(450 * t)));
        }
        return tone.array();
    }

    /** The part of the original that is in the sound, which lags behind. */
    private static double gain(byte[] original, List<Pcm> sound, int lag) {
        java.io.ByteArrayOutputStream all = new java.io.ByteArrayOutputStream();
        sound.forEach(pcm -> all.writeBytes(pcm.bytes()));
        java.nio.ShortBuffer decoded = java.nio.ByteBuffer.wrap(all.toByteArray()).order(java.nio.ByteOrder.LITTLE_ENDIAN).asShortBuffer();
        java.nio.ShortBuffer expected = java.nio.ByteBuffer.wrap(original).order(java.nio.ByteOrder.LITTLE_ENDIAN).asShortBuffer();
        double product = 0;
        double squares = 0;
        for (int i = 9600; i + 2 * lag + 9600 < decoded.limit(); i++) {
            product += (double) expected.get(i) * decoded.get(i + 2 * lag);
            squares += (double) expected.get(i) * expected.get(i);
        }
        return product / squares;
    }

    /** Settings from another thread come with the next packet; without any the packets are those of the plain engine. */
    @Test
    void changesOpusSettingsWhileItRuns() throws InterruptedException {
        byte[] tone = tone(48_000, 48_000 * 2);
        List<Integer> sizes = new ArrayList<>();
        List<Integer> copies = new ArrayList<>();
        try (OpusEncoder steered = OpusEncoder.builder().application(OpusEncoder.Application.VOIP).bitrate(64_000).open();
                OpusEncoder low = OpusEncoder.builder().bitrate(64_000).application(OpusEncoder.Application.LOW_DELAY).open();
                OpusEncoder plain = OpusEncoder.builder().bitrate(64_000).open();
                OpusEncoder quiet = OpusEncoder.builder().dtx(true).application(OpusEncoder.Application.VOIP).open()) {
            long bare = NOpusEncoder.open(2, 64_000, 20);
            byte[] packet = new byte[3828];
            for (int i = 0; i < 100; i++) {
                byte[] frame = Arrays.copyOfRange(tone, 3840 * i, 3840 * (i + 1));
                if (i == 50) {
                    Thread other = new Thread(() -> {
                        steered.bitrate(40_000);
                        steered.packetLoss(30);
                        steered.fec(true);
                    });
                    other.start();
                    other.join();
                }
                byte[] sent = steered.encode(frame);
                sizes.add(sent.length);
                copies.add(OpusDecoder.carriesFec(sent) ? 1 : 0);
                assertTrue(Arrays.equals(Arrays.copyOf(packet, NOpusEncoder.encode(frame, packet, bare)), plain.encode(frame)));
            }
            NOpusEncoder.close(bare);
            assertEquals(List.of(160, 100), List.of(sizes.get(49), sizes.get(50)));
            assertEquals(0, Collections.max(copies.subList(0, 50)));
            assertTrue(copies.subList(55, 100).stream().mapToInt(copy -> copy).sum() > 30, copies::toString);
            int silent = 0;
            for (int i = 0; i < 100; i++) {
                silent += quiet.encode(new byte[3840]).length == 1 ? 1 : 0;
            }
            assertTrue(silent > 50, "packets over silence: " + silent);
            assertEquals(192, plain.leadIn() - low.leadIn());
        }
    }

    private static int same(Optional<Pcm> plain, Optional<Pcm> thrifty, Consumer<Pcm> recycle) {
        assertEquals(plain.isPresent(), thrifty.isPresent());
        plain.ifPresent(expected -> {
            assertTrue(Arrays.equals(expected.bytes(), thrifty.get().bytes()));
            assertEquals(expected.channels(), thrifty.get().channels());
            assertEquals(expected.sampleRate(), thrifty.get().sampleRate());
        });
        thrifty.ifPresent(recycle);
        return plain.isPresent() ? 1 : 0;
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
        assertTrue(Vectors.worst(originals, stream) > 30);
    }

    /** What one engine after the other makes of a stream that it is given in some kind of array or buffer. */
    private static List<Object> results(List<AccessUnit> source, List<Picture> pictures, Function<byte[], ByteBuffer> kind) {
        List<Object> results = new ArrayList<>();
        try (Transcoder transcoder = Transcoder.builder().rendition(Rendition.of(64, 48).bitrate(100_000)).open();
                VideoDecoder decoder = VideoDecoder.open(); Pipeline pipeline = Pipeline.builder().open();
                VideoEncoder encoder = VideoEncoder.builder().size(320, 180).bitrate(500_000).open()) {
            Consumer<EncodedPicture> receiver = picture -> {
                byte[] copy = new byte[picture.size() + 2];
                picture.copyTo(copy, 2);
                ByteBuffer direct = ByteBuffer.allocateDirect(picture.size());
                picture.copyTo(direct);
                assertEquals(ByteBuffer.wrap(copy, 2, picture.size()), direct.flip());
                assertThrows(IndexOutOfBoundsException.class, () -> picture.copyTo(copy, 3));
                assertThrows(BufferOverflowException.class, () -> picture.copyTo(direct.position(1)));
                results.add(new AccessUnit(picture.copy(), picture.time()));
            };
            for (AccessUnit whole : source) {
                byte[] unit = Arrays.copyOfRange(whole.bytes(), source.indexOf(whole) % 2, whole.bytes().length); // a short start code
                ByteBuffer[] given = {kind.apply(unit), kind.apply(unit), kind.apply(unit)};
                long time = whole.time();
                if (given[0] == null) {
                    transcoder.write(unit, time, receiver);
                    decoder.decode(unit, time).ifPresent(results::add);
                    pipeline.write(unit, time).ifPresent(results::add);
                    continue;
                }
                if (given[0].hasArray() && given[0].position() == 0) {
                    byte[] array = given[0].array();
                    int offset = given[0].arrayOffset();
                    transcoder.write(array, offset, unit.length, time, receiver);
                    decoder.decode(array, offset, unit.length, time).ifPresent(results::add);
                    pipeline.write(array, offset, unit.length, time).ifPresent(results::add);
                    continue;
                }
                transcoder.write(given[0], time, receiver);
                decoder.decode(given[1], time).ifPresent(results::add);
                pipeline.write(given[2], time).ifPresent(results::add);
                assertTrue(Stream.of(given).noneMatch(ByteBuffer::hasRemaining));
            }
            for (Picture picture : pictures) {
                ByteBuffer given = kind.apply(picture.i420());
                (given == null ? encoder.encode(picture) : given.hasArray()
                        ? encoder.encode(given.array(), given.arrayOffset() + given.position(), given.remaining(), picture.time())
                        : encoder.encode(given, picture.time())).ifPresent(results::add);
            }
        }
        return results;
    }

    private static ByteBuffer inside(ByteBuffer larger, byte[] bytes) {
        return larger.position(3).put(bytes).position(3).limit(3 + bytes.length);
    }

    /** They give the same, whatever lies around them, and nothing is written to what was given. */
    @Test
    void takesArraysAndBuffersOfEveryKind() {
        List<AccessUnit> source = Vectors.timed(Vectors.REORDERED);
        List<Picture> pictures = Vectors.decode(source.stream().map(AccessUnit::bytes).toList());
        List<Object> expected = results(source, pictures, bytes -> null);
        assertEquals(4 * 30 - 6, expected.size()); // three engines hold two back
        for (Function<byte[], ByteBuffer> kind : List.<Function<byte[], ByteBuffer>>of(
                bytes -> inside(ByteBuffer.allocate(bytes.length + 9), bytes),
                bytes -> inside(ByteBuffer.allocate(bytes.length + 9), bytes).slice(),
                bytes -> inside(ByteBuffer.allocate(bytes.length + 9), bytes).asReadOnlyBuffer(),
                bytes -> inside(ByteBuffer.allocateDirect(bytes.length + 9), bytes),
                bytes -> inside(inside(ByteBuffer.allocateDirect(bytes.length + 9), new byte[bytes.length + 6]).slice(), bytes)
                        .asReadOnlyBuffer())) {
            assertEquals(expected, results(source, pictures, kind));
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
}
