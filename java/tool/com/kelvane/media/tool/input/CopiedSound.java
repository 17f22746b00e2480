package com.kelvane.media.tool.input;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.util.List;

/** AAC as it is. */
final class CopiedSound implements AacSource {
    private final AudioTrack track;
    private final Timeline timeline;
    private final PacketPipe packets;
    private final byte[] configuration;
    private Unit first;

    CopiedSound(AudioTrack track, Timeline timeline) throws IOException {
        this.track = track;
        this.timeline = timeline;
        packets = new PacketPipe(track.file(), track.index(), track.file().seek(timeline), "");
        byte[] stored = storedConfiguration();
        PacketPipe.Packet packet = packets.next();
        // With ADTS every packet has a header that amounts to one.
        configuration = stored.length > 0 || packet == null ? stored : Adts.configuration(packet.bytes());
        first = packet == null ? null : read(packet);
    }

    private byte[] storedConfiguration() throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        track.file().probe(List.of("-select_streams", Integer.toString(track.index()), "-show_entries", "stream=extradata",
                "-show_data", "-of", "default=noprint_wrappers=1"), line -> {
                    // A dump: an offset of eight digits, groups of four digits and, behind two spaces, the characters.
                    if (line.matches("[0-9a-f]{8}: .*")) {
                        String digits = line.substring(10).replaceFirst("  .*", "").replace(" ", "");
                        for (int i = 0; i + 1 < digits.length(); i += 2) {
                            bytes.write(Integer.parseInt(digits.substring(i, i + 2), 16));
                        }
                    }
                });
        return bytes.toByteArray();
    }

    @Override
    public byte[] configuration() {
        return configuration;
    }

    @Override
    public int sampleRate() {
        return track.sampleRate();
    }

    @Override
    public int channels() {
        return track.channels();
    }

    @Override
    public Unit next() throws IOException {
        if (first != null) {
            Unit unit = first;
            first = null;
            return unit;
        }
        PacketPipe.Packet packet = packets.next();
        return packet == null ? null : read(packet);
    }

    // What is heard at 0 takes the packet before it, too.
    private Unit read(PacketPipe.Packet begin) throws IOException {
        for (PacketPipe.Packet packet = begin; packet != null; packet = packets.next()) {
            double time = timeline.at(packet.time());
            if (time >= timeline.length()) {
                return null;
            }
            if (time >= -2 * packet.duration()) {
                return new Unit(Adts.strip(packet.bytes()), Math.round(time));
            }
        }
        return null;
    }

    @Override
    public void close() {
        packets.close();
    }
}
