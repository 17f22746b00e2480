package com.kelvane.media.tool.input;

import java.io.IOException;

/** MP3, Opus or PCM, decoded and encoded as AAC of one or two channels. */
final class EncodedSound implements AacSource {
    private final Timeline timeline;
    private final PacketPipe packets;
    private final SoundReencoder encoder;
    private boolean ended;

    EncodedSound(AudioTrack track, Timeline timeline) throws IOException {
        this.timeline = timeline;
        encoder = new SoundReencoder(track, 0);
        double from = track.file().seek(timeline);
        packets = track.isPcm()
                ? PacketPipe.ofPcm(track.file(), track.index(), from, encoder.sampleRate(), encoder.channels())
                : new PacketPipe(track.file(), track.index(), from, "");
    }

    @Override
    public byte[] configuration() {
        return encoder.configuration();
    }

    @Override
    public int channels() {
        return encoder.channels();
    }

    @Override
    public Unit next() throws IOException {
        Unit unit = encoder.poll();
        while (unit == null && !ended) {
            PacketPipe.Packet packet = packets.next();
            if (packet == null || timeline.at(packet.time()) >= timeline.length()) {
                ended = true;
                encoder.finish();
            } else {
                encoder.add(packet.bytes(), timeline.at(packet.time()), timeline.length());
            }
            unit = encoder.poll();
        }
        return unit;
    }

    @Override
    public void close() {
        encoder.close();
        packets.close();
    }
}
