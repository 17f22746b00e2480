package com.kelvane.media.tool.input;

import com.kelvane.media.AacEncoder;
import com.kelvane.media.AudioConfiguration;
import com.kelvane.media.MediaTrack;
import com.kelvane.media.tool.input.AacSource.Unit;
import java.util.ArrayList;
import java.util.HexFormat;
import java.util.List;
import java.util.Optional;

/** Sound that comes packet by packet, as AAC: AAC is handed on, all else decoded and encoded. */
public final class LiveSound implements AutoCloseable {
    private final AudioTrack track;
    private final SoundReencoder encoder; // null for AAC

    /** Opens a track; nothing for AAC of a kind that segments cannot be made of. */
    public static Optional<LiveSound> open(AudioTrack track) {
        LiveSound sound = new LiveSound(track);
        try {
            MediaTrack.aac(sound.configuration());
            return Optional.of(sound);
        } catch (IllegalArgumentException unusual) {
            sound.close();
            return Optional.empty();
        }
    }

    private LiveSound(AudioTrack track) {
        this.track = track;
        encoder = track.codec().equals("aac") ? null : new SoundReencoder(track);
    }

    /** The AudioSpecificConfig. */
    public byte[] configuration() {
        if (encoder != null) {
            return encoder.configuration();
        }
        String stored = track.file().stream(track.index()).getOrDefault(StreamHead.EXTRADATA, "");
        if (!stored.isEmpty()) {
            return HexFormat.of().parseHex(stored);
        }
        // Where packets have headers, those are of the plain AAC that the high-efficiency kinds extend: FFprobe has told what
        // comes out in the end.
        boolean extended = track.profile().startsWith("HE-AAC");
        int rate = extended ? track.sampleRate() / 2 : track.sampleRate();
        return AudioConfiguration.of(AacEncoder.SAMPLE_RATES.contains(rate) ? rate : AacEncoder.SAMPLE_RATES.get(0),
                track.profile().equals("HE-AACv2") ? 1 : track.channels()).bytes();
    }

    public int channels() {
        return encoder == null ? track.channels() : encoder.channels();
    }

    /**
     * Adds a packet and returns what it leads to.
     *
     * @param time in milliseconds
     */
    public List<Unit> add(byte[] packet, double time) {
        if (encoder == null) {
            return List.of(new Unit(packet, time));
        }
        encoder.add(packet, time, Double.POSITIVE_INFINITY);
        return encoded();
    }

    /** Returns what the end of the track leads to. */
    public List<Unit> finish() {
        if (encoder == null) {
            return List.of();
        }
        encoder.finish();
        return encoded();
    }

    private List<Unit> encoded() {
        List<Unit> units = new ArrayList<>();
        for (Unit unit = encoder.poll(); unit != null; unit = encoder.poll()) {
            units.add(unit);
        }
        return units;
    }

    @Override
    public void close() {
        if (encoder != null) {
            encoder.close();
        }
    }
}
