package com.kelvane.media.tool.input;

import com.kelvane.media.AacEncoder;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.util.ArrayDeque;
import java.util.Arrays;
import java.util.Optional;
import java.util.Queue;

/** MP3, Opus or PCM, decoded and encoded as AAC of one or two channels. */
final class EncodedSound implements AacSource {
    private static final int USUAL_RATE = 48_000; // Hz
    private static final double TOLERANCE = 40;   // ms by which times may differ from the samples before them
    private static final int BYTES_PER_SAMPLE = 2;

    private final Timeline timeline;
    private final PacketPipe packets;
    private final SoundDecoder decoder;
    private final int sampleRate;
    private final int channels;
    private final AacEncoder encoder;
    private final ByteArrayOutputStream waiting = new ByteArrayOutputStream();
    private final Queue<byte[]> encoded = new ArrayDeque<>();
    private byte[] silence = {};
    private double begin = Double.NaN; // time of the first sample in the result
    private long samples;              // that followed
    private long units;
    private boolean ended;

    EncodedSound(AudioTrack track, Timeline timeline) throws IOException {
        this.timeline = timeline;
        channels = Math.max(1, Math.min(2, track.channels()));
        sampleRate = AacEncoder.SAMPLE_RATES.contains(track.decodedRate()) ? track.decodedRate() : USUAL_RATE;
        encoder = AacEncoder.builder().channels(channels).sampleRate(sampleRate).open();
        if (track.isPcm()) {
            decoder = null;
            packets = PacketPipe.ofPcm(track.file(), track.index(), track.file().seek(timeline), sampleRate,
                    channels);
        } else {
            decoder = new SoundDecoder(track, null);
            packets = new PacketPipe(track.file(), track.index(), track.file().seek(timeline), "");
        }
    }

    @Override
    public byte[] configuration() {
        int rateIndex = AacEncoder.SAMPLE_RATES.indexOf(sampleRate);
        return new byte[] {(byte) (2 << 3 | rateIndex >> 1), (byte) (rateIndex << 7 | channels << 3)}; // 2: AAC-LC
    }

    @Override
    public int sampleRate() {
        return sampleRate;
    }

    @Override
    public int channels() {
        return channels;
    }

    @Override
    public Unit next() throws IOException {
        while (encoded.isEmpty() && !ended) {
            PacketPipe.Packet packet = packets.next();
            if (packet == null || timeline.at(packet.time()) >= timeline.length()) {
                ended = true;
                finish();
            } else {
                add(decode(packet), timeline.at(packet.time()));
            }
        }
        byte[] unit = encoded.poll();
        return unit == null ? null
                : new Unit(unit, Math.round(begin + 1000.0 * (AacEncoder.SAMPLES_PER_BLOCK * units++ - AacEncoder.LEAD_IN)
                        / sampleRate));
    }

    /** A packet's samples; as much silence as the last one had for one that cannot be decoded. */
    private byte[] decode(PacketPipe.Packet packet) {
        if (decoder == null) {
            return packet.bytes();
        }
        Optional<byte[]> sound = decoder.decode(packet.bytes());
        if (sound.isPresent() && silence.length != sound.get().length) {
            silence = new byte[sound.get().length];
        }
        return sound.orElse(silence);
    }

    private void add(byte[] sound, double time) throws IOException {
        int frame = BYTES_PER_SAMPLE * channels;
        double expected = Double.isNaN(begin) ? 0 : begin + 1000.0 * samples / sampleRate;
        long ahead = Math.round((time - expected) * sampleRate / 1000);
        int skipped = 0;
        if (Double.isNaN(begin)) {
            if (time + 1000.0 * (sound.length / frame) / sampleRate <= 0) {
                return;
            }
            begin = Math.max(0, time);
            skipped = (int) Math.max(0, -ahead) * frame;
        } else if (time - expected > TOLERANCE) {
            for (; ahead > 0; ahead -= AacEncoder.SAMPLES_PER_BLOCK) {
                encode(new byte[(int) Math.min(ahead, AacEncoder.SAMPLES_PER_BLOCK) * frame], 0);
            }
        } else if (expected - time > TOLERANCE) {
            skipped = (int) Math.min(sound.length, -ahead * frame);
        }
        double left = Math.min(timeline.length() - time, 1e6);
        long room = Math.round(left * sampleRate / 1000) * frame;
        encode(room < sound.length ? Arrays.copyOf(sound, (int) Math.max(skipped, room)) : sound, skipped);
    }

    private void encode(byte[] sound, int from) {
        waiting.write(sound, from, sound.length - from);
        samples += (sound.length - from) / (BYTES_PER_SAMPLE * channels);
        int size = encoder.blockSize();
        byte[] all = waiting.size() >= size ? waiting.toByteArray() : new byte[0];
        int at = 0;
        for (; at + size <= all.length; at += size) {
            encoder.encode(Arrays.copyOfRange(all, at, at + size)).ifPresent(encoded::add);
        }
        if (at > 0) {
            waiting.reset();
            waiting.write(all, at, all.length - at);
        }
    }

    private void finish() {
        if (samples > 0) {
            if (waiting.size() > 0) {
                encoder.encode(Arrays.copyOf(waiting.toByteArray(), encoder.blockSize())).ifPresent(encoded::add);
            }
            encoder.drain(encoded::add);
        }
    }

    @Override
    public void close() {
        encoder.close();
        packets.close();
        if (decoder != null) {
            decoder.close();
        }
    }
}
