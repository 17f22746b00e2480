package com.kelvane.media.tool.input;

import com.kelvane.media.OpusDecoder;
import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Map;
import java.util.Set;

/**
 * The sound track of an input file, as its headers describe it.
 *
 * @param index the track's stream number
 * @param codec FFmpeg's name
 * @param sampleRate in Hz
 */
public record AudioTrack(MediaFile file, int index, String codec, int sampleRate, int channels) {
    private static final Set<String> DECODED = Set.of("aac", "mp3", "opus");

    public static AudioTrack open(Path path) throws IOException {
        MediaFile file = MediaFile.open(path, "stream=index,codec_type,codec_name,profile,sample_rate,channels");
        Map<String, String> sound = file.stream(
                stream -> DECODED.contains(stream.get("codec_name"))
                        || stream.getOrDefault("codec_name", "").startsWith("pcm_"),
                "has no sound that can be read, only AAC, MP3, Opus and PCM can");
        AudioTrack track = new AudioTrack(file, (int) MediaFile.number(sound, "index"), sound.get("codec_name"),
                (int) MediaFile.number(sound, "sample_rate"), (int) MediaFile.number(sound, "channels"));
        if (sound.getOrDefault("profile", "").startsWith("HE-AAC")) {
            throw new Failure("%s has %s; the decoder takes AAC-LC only", path, sound.get("profile"));
        }
        if (!track.isPcm() && (track.channels < 1 || track.channels > 2)) {
            throw new Failure("%s has %d channels of %s; the decoders take one or two", path, track.channels, track.codec);
        }
        if (track.sampleRate < 1) {
            throw new Failure("%s does not tell its sampling rate", path);
        }
        return track;
    }

    /** The rate of what the library's decoder makes of it, in Hz: Opus has but one. */
    int decodedRate() {
        return codec.equals("opus") ? OpusDecoder.SAMPLE_RATE : sampleRate;
    }

    public boolean isPcm() {
        return !DECODED.contains(codec);
    }
}
