package com.kelvane.media.tool.input;

import com.kelvane.media.OpusDecoder;
import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * A sound track of an input file, as its headers describe it.
 *
 * @param index the track's stream number
 * @param codec FFmpeg's name
 * @param profile FFmpeg's name, may be empty
 * @param sampleRate in Hz
 * @param start time of its first sample in milliseconds
 */
public record AudioTrack(MediaFile file, int index, String codec, String profile, int sampleRate, int channels,
                         double start) {
    private static final Set<String> DECODED = Set.of("aac", "mp3", "opus");

    private AudioTrack(MediaFile file, Map<String, String> sound) {
        this(file, (int) MediaFile.number(sound, "index"), sound.getOrDefault("codec_name", "unknown"),
                sound.getOrDefault("profile", ""), (int) MediaFile.number(sound, "sample_rate"),
                (int) MediaFile.number(sound, "channels"), 1000 * MediaFile.number(sound, "start_time"));
    }

    /** The first track that can be read. */
    public static AudioTrack open(Path path) throws IOException {
        MediaFile file = MediaFile.open(path);
        AudioTrack track = new AudioTrack(file, file.stream(stream -> new AudioTrack(file, stream).isRead(),
                "has no sound that can be read, only AAC, MP3, Opus and PCM can"));
        track.checkDecodable();
        return track;
    }

    /** All tracks, in the order of the file. */
    public static List<AudioTrack> all(MediaFile file) {
        return file.streams().stream().filter(stream -> "audio".equals(stream.get("codec_type")))
                .map(stream -> new AudioTrack(file, stream)).toList();
    }

    /** The number of the track, from 1, that is to be heard when nothing else is asked for; 0 when there is none. */
    public static int usual(MediaFile file) {
        List<Map<String, String>> sounds = file.streams().stream()
                .filter(stream -> "audio".equals(stream.get("codec_type"))).toList();
        for (int i = 0; i < sounds.size(); i++) {
            if (MediaFile.number(sounds.get(i), "disposition:default") == 1) {
                return i + 1;
            }
        }
        return Math.min(1, sounds.size());
    }

    private void checkDecodable() {
        if (profile.startsWith("HE-AAC")) {
            throw new Failure("%s has %s; the decoder takes AAC-LC only", file.path(), profile);
        }
        if (!isPcm() && (channels < 1 || channels > 2)) {
            throw new Failure("%s has %d channels of %s; the decoders take one or two", file.path(), channels, codec);
        }
        if (sampleRate < 1) {
            throw new Failure("%s does not tell its sampling rate", file.path());
        }
    }

    private boolean isRead() {
        return DECODED.contains(codec) || codec.startsWith("pcm_");
    }

    /** Why the track cannot go into a result, or null. */
    public String problem() {
        return !isRead() ? codec + " is not among AAC, MP3, Opus and PCM"
                : !codec.equals("aac") && !isPcm() && (channels < 1 || channels > 2)
                ? "it has " + channels + " channels of " + codec : sampleRate < 1 ? "it has no sampling rate" : null;
    }

    /** The rate of what the library's decoder makes of it, in Hz: Opus has but one. */
    int decodedRate() {
        return codec.equals("opus") ? OpusDecoder.SAMPLE_RATE : sampleRate;
    }

    public boolean isPcm() {
        return codec.startsWith("pcm_");
    }
}
