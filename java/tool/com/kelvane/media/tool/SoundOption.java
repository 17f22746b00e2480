package com.kelvane.media.tool;

import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.shell.Failure;
import java.util.List;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Option;
import picocli.CommandLine.TypeConversionException;

/** Which sound goes into the results. */
final class SoundOption {
    private static final int NONE = 0;

    @Option(names = "--audio", paramLabel = "N|none", converter = Converter.class, description = "Sound track to carry, from 1"
            + " (default: the file's own choice). AAC is copied; MP3, Opus and PCM become AAC.")
    private Integer number;

    static final class Converter implements ITypeConverter<Integer> {
        @Override
        public Integer convert(String text) {
            if (!text.matches("none|[1-9]\\d{0,3}")) {
                throw new TypeConversionException(text + ": expected the number of a sound track, or none");
            }
            return text.equals("none") ? NONE : Integer.parseInt(text);
        }
    }

    /** The track to carry, or null; says what is done with the sound there is. */
    AudioTrack choose(VideoTrack video) {
        List<AudioTrack> tracks = AudioTrack.all(video.file());
        int chosen = number != null ? number : AudioTrack.usual(video.file());
        if (chosen > tracks.size()) {
            throw new Failure("%s has %d sound tracks, so there is no track %d", video.path(), tracks.size(), chosen);
        }
        if (tracks.isEmpty()) {
            return null;
        }
        if (chosen == NONE) {
            Summary.line("sound: left out");
            return null;
        }
        AudioTrack track = tracks.get(chosen - 1);
        if (track.problem() != null) {
            if (number != null) {
                throw new Failure("sound track %d of %s cannot be carried: %s", chosen, video.path(), track.problem());
            }
            Summary.line("sound: left out, for %s", track.problem());
            return null;
        }
        Summary.line("sound: track %d of %d, %s", chosen, tracks.size(),
                track.codec().equals("aac") ? "AAC, copied" : track.codec() + ", encoded as AAC");
        return track;
    }
}
