package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AacEncoder;
import com.kelvane.media.AccessUnit;
import com.kelvane.media.AudioConfiguration;
import com.kelvane.media.ContainerWriter;
import com.kelvane.media.ContainerWriter.Format;
import com.kelvane.media.Fragment;
import com.kelvane.media.MediaException;
import com.kelvane.media.MediaTrack;
import com.kelvane.media.ParameterSets;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.ByteBuffer;
import java.nio.channels.Channels;
import java.nio.channels.FileChannel;
import java.nio.channels.WritableByteChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.Arrays;
import java.util.List;
import java.util.Optional;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

final class ContainerWriterTest {
    private static final List<byte[]> PICTURES = Vectors.units(Vectors.PLAIN);
    private static final MediaTrack VIDEO = MediaTrack.h264(176, 144);
    private static final MediaTrack SOUND = MediaTrack.aac(48_000, 2);
    private static final byte[] UNIT = {0x21, 0x10, 4, 0x60};

    @TempDir
    private Path folder;

    private static ContainerWriter.Builder builder(Format format, MediaTrack... tracks) {
        ContainerWriter.Builder builder = ContainerWriter.builder(format);
        Arrays.stream(tracks).forEach(builder::track);
        return builder;
    }

    private static ContainerWriter fragments(MediaTrack... tracks) {
        return builder(Format.FRAGMENTED_MP4, tracks).open();
    }

    private static WritableByteChannel nowhere() {
        return Channels.newChannel(new ByteArrayOutputStream());
    }

    /** The channel gets what the muxer made, from its own position on, and its index first when that was asked for. */
    @Test
    void writesToAChannelFromItsPositionOn() throws IOException {
        byte[][] files = new byte[2][];
        for (int i = 0; i < 2; i++) {
            byte[] ahead = new byte[1000 * i];
            Path file = Files.write(folder.resolve("film" + i), ahead);
            try (FileChannel channel = FileChannel.open(file, StandardOpenOption.READ, StandardOpenOption.WRITE)) {
                channel.position(ahead.length);
                try (ContainerWriter writer = builder(Format.MP4, VIDEO, SOUND).fastStart().open(channel)) {
                    for (int n = 0; n < 900; n++) { // more than goes at once, to the channel and in the move
                        byte[] large = Arrays.copyOf(PICTURES.get(n % 30), 4000);
                        assertTrue(writer.write(0, large, 3600L * n));
                        assertTrue(writer.write(1, UNIT, 1024L * n - AacEncoder.LEAD_IN));
                    }
                    writer.finish();
                    assertEquals("avc1.42c00b,mp4a.40.2", writer.codecs());
                    assertThrows(IllegalStateException.class, writer::finish);
                }
            }
            byte[] all = Files.readAllBytes(file);
            files[i] = Arrays.copyOfRange(all, ahead.length, all.length);
        }
        assertArrayEquals(files[0], files[1]);
        assertTrue(files[0].length > 3_000_000);
        ByteBuffer boxes = ByteBuffer.wrap(files[0]);
        int moov = boxes.getInt(0);
        assertEquals("moov", new String(files[0], moov + 4, 4, StandardCharsets.US_ASCII));
    }

    /** Sound waits for the first picture with parameter sets; what cannot be decoded is left out, and so is priming. */
    @Test
    void beginsWithTheFirstParameterSets() {
        try (ContainerWriter writer = fragments(VIDEO, SOUND)) {
            assertTrue(writer.write(1, UNIT, -1024)); // for all that is known then
            assertFalse(writer.write(0, PICTURES.get(1), 0));
            assertEquals(Optional.empty(), writer.cut());
            assertThrows(IllegalStateException.class, writer::initSegment);
            assertEquals(Optional.empty(), writer.track(0).codecs());
            assertTrue(writer.write(0, PICTURES.get(0), 9000));
            assertTrue(writer.write(1, UNIT, 0));
            Fragment fragment = writer.cut(12_600).orElseThrow();
            assertEquals(List.of(new Fragment.Run(0, 9000, 9000, 3600, 1, true), new Fragment.Run(1, 0, 0, 1024, 1, true)),
                    fragment.runs());
            assertEquals(Optional.empty(), writer.cut());
            assertEquals(Optional.of("avc1.42c00b"), writer.track(0).codecs());
            assertEquals("ftyp", new String(writer.initSegment(), 4, 4, StandardCharsets.US_ASCII));
        }
        try (ContainerWriter writer = builder(Format.MPEG_TS, VIDEO, SOUND).open(nowhere())) {
            byte[] large = new byte[8000];
            int waiting = 0;
            while (writer.write(1, large, 1024L * waiting)) {
                waiting++;
            }
            assertEquals(ContainerWriter.WAITING_LIMIT / large.length, waiting);
            assertThrows(MediaException.class, writer::finish);
        }
    }

    @Test
    void takesParameterSetsInBothForms() {
        byte[] sps = {0x67, 0x64, 0, 0x1f, (byte) 0xac, (byte) 0xd9};
        byte[] pps = {0x68, (byte) 0xeb, (byte) 0xe3};
        byte[] record = ByteBuffer.allocate(30).put(new byte[] {1, 0x64, 0, 0x1f, -1, -31, 0, 6}).put(sps).put(new byte[] {1, 0, 3})
                .put(pps).array();
        byte[] stream = ByteBuffer.allocate(17).put(new byte[] {0, 0, 0, 1}).put(sps).put(new byte[] {0, 0, 0, 1}).put(pps).array();
        for (byte[] sets : List.of(record, stream)) {
            assertEquals(Optional.of("avc1.64001f"), VIDEO.parameterSets(sets).codecs());
        }
        for (byte[] wrong : List.of(new byte[0], new byte[] {1}, Arrays.copyOf(record, 12), sps, Arrays.copyOf(stream, 10))) {
            assertThrows(IllegalArgumentException.class, () -> VIDEO.parameterSets(wrong));
        }
        assertEquals(List.of("mp4a.40.2", "mp4a.40.5", "mp4a.6b", "mp4a.69", "opus"), List.of(SOUND, MediaTrack.aac(
                new byte[] {0x2b, (byte) 0x92, 8}), MediaTrack.mp3(44_100, 2), MediaTrack.mp3(22_050, 1), MediaTrack.opus(2)).stream()
                .map(track -> track.codecs().orElseThrow()).toList());
    }

    /** As FFmpeg makes them, of every profile that there is a stream of; and back again. */
    @Test
    void makesWhatContainersAndSignallingBeginWith() throws IOException {
        for (String name : List.of(Vectors.PLAIN, Vectors.REORDERED, "slices.h264", "odd.h264", "yuv422.h264")) {
            List<byte[]> units = Vectors.units(name);
            ParameterSets sets = ParameterSets.in(units.get(0)).orElseThrow();
            try (ContainerWriter writer = fragments(MediaTrack.h264(176, 144).parameterSets(sets))) {
                assertArrayEquals(box(writer.initSegment(), "avcC"), sets.avcC(), name);
                assertEquals(writer.codecs(), sets.codecs());
            }
            assertEquals(sets, ParameterSets.of(sets.avcC()));
            byte[] bare = units.get(1); // which has none
            assertEquals(Optional.empty(), new AccessUnit(bare, 0).parameterSets());
            byte[] whole = sets.prependTo(bare);
            assertEquals(Optional.of(sets), new AccessUnit(whole, 0).parameterSets());
            assertSame(whole, sets.prependTo(whole));
            byte[] delimited = ByteBuffer.allocate(6 + bare.length).put(new byte[] {0, 0, 0, 1, 9, -16}).put(bare).array();
            byte[] both = sets.prependTo(delimited);
            assertArrayEquals(Arrays.copyOf(delimited, 6), Arrays.copyOf(both, 6));
            assertArrayEquals(whole, Arrays.copyOfRange(both, 6, both.length));
        }
        byte[] made = Files.readAllBytes(Path.of(System.getProperty("test.data"), "stereo.m4a")); // FFmpeg's, of the same encoder
        try (AacEncoder encoder = AacEncoder.builder().sampleRate(44_100).open()) {
            byte[] told = box(made, "esds"); // its own descriptors, then the tag and length of the configuration
            assertArrayEquals(Arrays.copyOfRange(told, 35, 37), encoder.configuration().bytes());
            assertEquals(encoder.configuration(), AudioConfiguration.ofAdts(new byte[] {-1, -15, 0x50, (byte) 0x80, 0, 0x1f, -4}));
        }
    }

    /** The content of the first box of a type. */
    private static byte[] box(byte[] file, String type) {
        int at = new String(file, StandardCharsets.ISO_8859_1).indexOf(type);
        return Arrays.copyOfRange(file, at + 4, at - 4 + ByteBuffer.wrap(file).getInt(at - 4));
    }

    /** A channel that throws has lost bytes: the writer says so from then on. */
    @Test
    void endsWithAChannelThatThrows() {
        class Full implements WritableByteChannel {
            private int left = 2;

            @Override
            public int write(ByteBuffer bytes) throws IOException {
                if (left-- == 0) {
                    throw new IOException("disk full");
                }
                bytes.position(bytes.limit());
                return 1;
            }

            @Override
            public boolean isOpen() {
                return true;
            }

            @Override
            public void close() {
            }
        }
        try (ContainerWriter writer = builder(Format.FLV, VIDEO, SOUND).open(new Full())) {
            assertThrows(UncheckedIOException.class, () -> {
                for (int i = 0; i < 30; i++) {
                    writer.write(0, PICTURES.get(i), 3600L * i);
                }
            });
            String message = assertThrows(IllegalStateException.class, () -> writer.write(1, UNIT, 90_000)).getMessage();
            assertTrue(message.contains("has failed before: ") && message.contains("disk full"), message);
            assertThrows(IllegalStateException.class, writer::finish);
        }
    }

    /** The message names what was wrong and what is allowed. */
    @Test
    void saysWhatIsWrong() throws IOException {
        record Case(Executable call, String message) {
        }
        ContainerWriter writer = fragments(VIDEO, SOUND);
        writer.write(0, PICTURES.get(0), 3600);
        ContainerWriter flv = builder(Format.FLV, VIDEO).open(nowhere());
        FileChannel unread = FileChannel.open(folder.resolve("unread"), StandardOpenOption.CREATE, StandardOpenOption.WRITE);
        String unit = "track 0 (H264 176x144), " + PICTURES.get(1).length + " bytes at ";
        for (Case wrong : List.of(
                new Case(() -> builder(Format.OGG, SOUND), "OGG takes [OPUS], not AAC"),
                new Case(() -> builder(Format.FLV, VIDEO, VIDEO), "FLV takes one track of pictures and one of sound"),
                new Case(() -> builder(Format.FLV, MediaTrack.mp3(48_000, 2)), "allowed in FLV are one or two channels at"
                        + " [11025, 22050, 44100] Hz for MP3, not MP3 48000 Hz, 2 channels"),
                new Case(() -> builder(Format.MP4, MediaTrack.mp3(8000, 1)), "sampleRate is 8000, allowed in MP4 are 16000 Hz and more"
                        + " for MP3"),
                new Case(() -> builder(Format.ADTS).open(nowhere()), "no track was given"),
                new Case(() -> builder(Format.MP4, VIDEO).open(nowhere()), "MP4 needs a SeekableByteChannel, as a FileChannel is one"),
                new Case(() -> builder(Format.MP4, VIDEO).open(), "MP4 is written to a channel: open(channel)"),
                new Case(() -> builder(Format.FRAGMENTED_MP4, VIDEO).open(nowhere()),
                        "FRAGMENTED_MP4 is handed out by initSegment() and cut(): open()"),
                new Case(() -> builder(Format.MPEG_TS, VIDEO).fastStart(), "fastStart: MPEG_TS has no index to put in front"),
                new Case(() -> builder(Format.MP4, VIDEO).fastStart().open(unread),
                        "fastStart: what was written is read again; open the channel for reading too"),
                new Case(() -> VIDEO.rotation(45), "rotation is 45, allowed are 0, 90, 180 and 270 degrees"),
                new Case(() -> SOUND.timescale(1000), "timescale: a track of sound has none"),
                new Case(() -> VIDEO.language("english"), "language is \"english\", allowed are three letters of ISO 639-2, as \"eng\""),
                new Case(() -> MediaTrack.aac(44_000, 2), "sampleRate is 44000, allowed are " + AacEncoder.SAMPLE_RATES + " Hz"),
                new Case(() -> MediaTrack.h264(0, 144), "width is 0, allowed are 1 to 16384 pixels"),
                new Case(() -> writer.write(0, PICTURES.get(1), 3600), unit + "3600 (decoded at 3600, lasting 0, in ticks of 1/90000 s):"
                        + " decoding times rise in each track, in the container's ticks too"),
                new Case(() -> writer.write(0, PICTURES.get(1), 3601, 7200, 0), unit + "3601 (decoded at 7200, lasting 0, in ticks of"
                        + " 1/90000 s): it would be shown before it is decoded"),
                new Case(() -> flv.write(0, PICTURES.get(0), 0, -7200, 0), "track 0 (H264 176x144), " + PICTURES.get(0).length
                        + " bytes at 0 (decoded at -7200, lasting 0, in ticks of 1/90000 s): FLV cannot tell of times that early;"
                        + " begin all tracks later by the same time"))) {
            assertEquals(wrong.message, assertThrows(IllegalArgumentException.class, wrong.call).getMessage());
        }
        assertThrows(IllegalArgumentException.class, () -> writer.write(0, new byte[] {0, 0, 0, 9, 0x65}, 7200));
        assertThrows(IllegalArgumentException.class, () -> writer.write(1, new byte[0], 7200));
        assertThrows(IndexOutOfBoundsException.class, () -> writer.write(2, UNIT, 7200));
        assertThrows(NullPointerException.class, () -> writer.write(0, null, 7200));
        assertThrows(IllegalStateException.class, flv::cut);
        assertThrows(IllegalStateException.class, flv::initSegment);
        assertTrue(writer.write(0, PICTURES.get(1), 7200)); // nothing of that has changed anything
        assertEquals(2, writer.cut().orElseThrow().runs().get(0).units());
        writer.close();
        flv.close();
        unread.close();
    }
}
