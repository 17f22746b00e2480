package com.kelvane.media.tool.input;

import java.io.IOException;

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
        byte[] stored = track.file().configuration(track.index());
        PacketPipe.Packet packet = packets.next();
        // With ADTS every packet has a header that amounts to one.
        configuration = stored.length > 0 || packet == null ? stored : Adts.configuration(packet.bytes());
        first = packet == null ? null : read(packet);
    }

    @Override
    public byte[] configuration() {
        return configuration;
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
                return new Unit(packet.bytes(), time);
            }
        }
        return null;
    }

    @Override
    public void close() {
        packets.close();
    }
}
