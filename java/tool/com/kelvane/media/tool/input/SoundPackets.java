package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import com.kelvane.media.tool.shell.Progress;
import java.io.BufferedInputStream;
import java.io.BufferedOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Optional;

/** A track's packets in a working folder, and what the container says of the sound's beginning and end. */
public final class SoundPackets {
    private static final String PACKETS = "source.packets";
    private static final String FIRST = "first.adts";

    private final AudioTrack track;
    private final Path folder;
    private final List<Integer> sizes = new ArrayList<>();
    private long leadIn;          // samples that the encoder put before the sound
    private long padding;         // samples behind the end in the last packet
    private double lastSeconds;   // how much of the last packet is to be heard; 0 when the container does not say
    private int lost;

    /** Copies the track out of its container. */
    public SoundPackets(AudioTrack track, Path folder) throws IOException {
        this.track = track;
        this.folder = folder;
        String index = Integer.toString(track.index());
        track.file().probe(List.of("-select_streams", index, "-show_packets"), line -> {
            if (line.startsWith("packet|")) {
                add(MediaFile.entries(line));
            }
        });
        List<String> command = new ArrayList<>(List.of("-v", "error", "-i", track.file().path().toString(),
                "-map", "0:" + index, "-c", "copy", "-f", "data", PACKETS));
        if (track.codec().equals("aac")) {
            // An ADTS header says what the decoder is to know first, wherever the container has it.
            command.addAll(List.of("-map", "0:" + index, "-c", "copy", "-frames:a", "1", "-f", "adts", FIRST));
        }
        var error = new MediaProgram.FirstError(track.file().path());
        int exitCode = MediaProgram.FFMPEG.run(folder, command, line -> { }, error);
        long bytes = sizes.stream().mapToLong(Integer::longValue).sum();
        if (exitCode != 0 || sizes.isEmpty() || Files.size(folder.resolve(PACKETS)) != bytes) {
            throw new Failure("the sound of %s could not be copied out of it: %s", track.file().path(), error);
        }
    }

    private void add(Map<String, String> packet) {
        if (sizes.isEmpty()) {
            leadIn = (long) MediaFile.number(packet, "skip_samples");
        }
        sizes.add((int) MediaFile.number(packet, "size"));
        padding = (long) MediaFile.number(packet, "discard_padding");
        lastSeconds = MediaFile.number(packet, "duration_time");
    }

    public int count() {
        return sizes.size();
    }

    /** Packets that {@link #decode} could not decode; as much silence stands in for them. */
    public int lost() {
        return lost;
    }

    /** Decodes all packets, without what the encoder added before and behind the sound. */
    public PcmFile decode() throws IOException {
        PcmFile pcm = new PcmFile(folder.resolve("decoded.pcm"), track.decodedRate(), track.channels());
        int bytesPerSample = PcmFile.BYTES_PER_SAMPLE * track.channels();
        long samples = 0;
        byte[] silence = {};
        byte[] config = track.codec().equals("aac") ? configuration(Files.readAllBytes(folder.resolve(FIRST))) : null;
        try (InputStream input = new BufferedInputStream(Files.newInputStream(folder.resolve(PACKETS)), 1 << 16);
                OutputStream output = new BufferedOutputStream(Files.newOutputStream(pcm.path()), 1 << 16);
                SoundDecoder decoder = new SoundDecoder(track, config);
                Progress progress = new Progress(count())) {
            for (int i = 0; i < count(); i++) {
                Optional<byte[]> decoded = decoder.decode(withoutHeader(input.readNBytes(sizes.get(i))));
                if (decoded.isEmpty()) {
                    lost++;
                } else if (silence.length != decoded.get().length) {
                    silence = new byte[decoded.get().length];
                }
                byte[] sound = decoded.orElse(silence);
                int skipped = (int) Math.max(0, Math.min(sound.length, (leadIn - samples) * bytesPerSample));
                output.write(sound, skipped, sound.length - skipped);
                samples += sound.length / bytesPerSample;
                progress.update(i + 1, 0, 1000 * samples / pcm.sampleRate());
            }
        }
        if (lost == count()) {
            throw new Failure("no sound of %s could be decoded", track.file().path());
        }
        long tail = padding > 0 ? padding : silence.length / bytesPerSample - Math.round(lastSeconds * pcm.sampleRate());
        // Containers that count in milliseconds round a whole packet's duration.
        if (lastSeconds > 0 && tail > pcm.sampleRate() / 1000) {
            try (FileChannel file = FileChannel.open(pcm.path(), StandardOpenOption.WRITE)) {
                file.truncate(Math.max(0, file.size() - tail * bytesPerSample));
            }
        }
        return pcm;
    }

    private byte[] withoutHeader(byte[] packet) {
        boolean adts = track.codec().equals("aac") && packet.length > 9 && (packet[0] & 0xff) == 0xff
                && (packet[1] & 0xf6) == 0xf0;
        // A checksum of two bytes follows the header unless its last bit here says that there is none.
        return adts ? Arrays.copyOfRange(packet, (packet[1] & 1) == 1 ? 7 : 9, packet.length) : packet;
    }

    /** The AudioSpecificConfig that an ADTS header amounts to. */
    private static byte[] configuration(byte[] adts) throws IOException {
        if (adts.length < 7) {
            throw new IOException("the first AAC packet could not be copied");
        }
        int objectType = (adts[2] >> 6 & 3) + 1;
        int rateIndex = adts[2] >> 2 & 15;
        int channels = (adts[2] & 1) << 2 | adts[3] >> 6 & 3;
        return new byte[] {(byte) (objectType << 3 | rateIndex >> 1), (byte) (rateIndex << 7 | channels << 3)};
    }
}
