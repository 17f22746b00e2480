package com.kelvane.media.tool.input;

import com.kelvane.media.AacEncoder;
import java.io.ByteArrayOutputStream;
import java.util.ArrayDeque;
import java.util.Arrays;
import java.util.Optional;
import java.util.Queue;

/** Makes AAC of one or two channels from packets of MP3, Opus or 16-bit PCM, and keeps it in step with their times. */
final class SoundReencoder implements AutoCloseable {
    private static final int USUAL_RATE = 48_000; // Hz
    private static final double TOLERANCE = 40;   // ms by which times may differ from the samples before them
    private static final int BYTES_PER_SAMPLE = 2;

    private final SoundDecoder decoder;
    private final int sampleRate;
    private final int channels;
    private final AacEncoder encoder;
    private final ByteArrayOutputStream waiting = new ByteArrayOutputStream();
    private final Queue<byte[]> encoded = new ArrayDeque<>();
    private byte[] silence = {};
    private final double origin;
    private double begin = Double.NaN; // time of the first sample in the result
    private long samples;              // that followed
    private long units;

    /** The result begins with the first packet. */
    SoundReencoder(AudioTrack track) {
        this(track, Double.NaN);
    }

    /** @param origin when the result begins, with silence if need be, in milliseconds */
    SoundReencoder(AudioTrack track, double origin) {
        this.origin = origin;
        channels = channels(track);
        sampleRate = sampleRate(track);
        encoder = AacEncoder.builder().channels(channels).sampleRate(sampleRate).open();
        decoder = track.isPcm() ? null : new SoundDecoder(track, null);
    }

    /** Channels of the result, which PCM has to have already. */
    static int channels(AudioTrack track) {
        return Math.max(1, Math.min(2, track.channels()));
    }

    /** Sampling rate of the result in Hz, which PCM has to have already. */
    static int sampleRate(AudioTrack track) {
        return AacEncoder.SAMPLE_RATES.contains(track.decodedRate()) ? track.decodedRate() : USUAL_RATE;
    }

    int sampleRate() {
        return sampleRate;
    }

    int channels() {
        return channels;
    }

    byte[] configuration() {
        return encoder.configuration().bytes();
    }

    /**
     * Adds a packet.
     *
     * @param time in milliseconds, of the result
     * @param end time at which the result ends
     */
    void add(byte[] packet, double time, double end) {
        byte[] sound = decode(packet);
        int frame = BYTES_PER_SAMPLE * channels;
        boolean first = Double.isNaN(begin);
        if (first) {
            if (time + 1000.0 * (sound.length / frame) / sampleRate <= 0) {
                return;
            }
            begin = Double.isNaN(origin) ? Math.max(0, time) : origin;
        }
        double expected = begin + 1000.0 * samples / sampleRate;
        long ahead = first || Math.abs(time - expected) > TOLERANCE ? Math.round((time - expected) * sampleRate / 1000) : 0;
        int skipped = (int) Math.min(sound.length, Math.max(0, -ahead) * frame);
        for (; ahead > 0; ahead -= AacEncoder.SAMPLES_PER_BLOCK) {
            encode(new byte[(int) Math.min(ahead, AacEncoder.SAMPLES_PER_BLOCK) * frame], 0);
        }
        double left = Math.min(end - time, 1e6);
        long room = Math.round(left * sampleRate / 1000) * frame;
        encode(room < sound.length ? Arrays.copyOf(sound, (int) Math.max(skipped, room)) : sound, skipped);
    }

    /** A packet's samples; as much silence as the last one had for one that cannot be decoded. */
    private byte[] decode(byte[] packet) {
        if (decoder == null) {
            return packet;
        }
        Optional<byte[]> sound = decoder.decode(packet);
        if (sound.isPresent() && silence.length != sound.get().length) {
            silence = new byte[sound.get().length];
        }
        return sound.orElse(silence);
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

    /** Makes the last units. */
    void finish() {
        if (samples > 0) {
            if (waiting.size() > 0) {
                encoder.encode(Arrays.copyOf(waiting.toByteArray(), encoder.blockSize())).ifPresent(encoded::add);
            }
            encoder.drain(encoded::add);
        }
    }

    /** The next unit; null when there is none yet. */
    AacSource.Unit poll() {
        byte[] unit = encoded.poll();
        return unit == null ? null : new AacSource.Unit(unit,
                begin + 1000.0 * (AacEncoder.SAMPLES_PER_BLOCK * units++ - AacEncoder.LEAD_IN) / sampleRate);
    }

    @Override
    public void close() {
        encoder.close();
        if (decoder != null) {
            decoder.close();
        }
    }
}
