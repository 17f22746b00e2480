package com.kelvane.media.spark;

import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.MediaFile;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.io.Serializable;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * What is to be done for one input, from its headers alone.
 *
 * @param streams the file's streams, by FFmpeg's names
 * @param format its container
 * @param configuration of the pictures' decoder
 * @param soundTrack position among its sound tracks, or -1
 * @param chunks how many tasks transcode its pictures
 * @param note what is to be said about it, or null
 */
record Plan(Source source, Settings settings, ArrayList<HashMap<String, String>> streams, HashMap<String, String> format,
            byte[] configuration, int soundTrack, int chunks, String note) implements Serializable {
    private static final long serialVersionUID = 1;
    private static final int LARGEST_NUMBER = 99_999; // that file names have room for

    static Plan of(Source source, Settings settings, MediaFile file) throws IOException {
        VideoTrack video = VideoTrack.of(file);
        video.checkPictures();
        Ladder.of(video, settings); // which may be impossible
        List<AudioTrack> sounds = AudioTrack.all(file);
        int sound = (settings.sound() == null ? AudioTrack.usual(file) : settings.sound()) - 1;
        String note = null;
        if (sound >= sounds.size()) {
            note = "without sound, as it has " + sounds.size() + " sound tracks";
            sound = -1;
        } else if (sound >= 0 && sounds.get(sound).problem() != null) {
            note = "without sound, for " + sounds.get(sound).problem();
            sound = -1;
        }
        int chunks = 1;
        if (file.hasIndex() && video.seconds() > 0) {
            chunks = (int) Math.max(1, Math.min(LARGEST_NUMBER, Math.ceil(video.seconds() / settings.chunkSeconds())));
        } else if (note == null) {
            note = "in one piece, as its container has no index; as MP4 or Matroska it could be cut";
        }
        ArrayList<HashMap<String, String>> streams = new ArrayList<>();
        file.streams().forEach(stream -> streams.add(new HashMap<>(stream)));
        return new Plan(source, settings, streams, new HashMap<>(file.format()), file.configuration(video.index()), sound,
                chunks, note);
    }

    /** The file, as programs of this machine reach it. */
    MediaFile file(InputAccess access) {
        return new MediaFile(access.path(), access.address(), new ArrayList<Map<String, String>>(streams), format);
    }

    /** The pictures, for what is known without reading the file. */
    VideoTrack video() {
        return VideoTrack.of(new MediaFile(Path.of(source.name()), "", new ArrayList<Map<String, String>>(streams), format));
    }

    /** What the results depend on: those of another plan are no use to this one. */
    String fingerprint() {
        return String.join("\n", "version " + TranscodeJob.version(), "length " + source.length(),
                "modified " + source.modified(), "renditions " + Ladder.of(video(), settings).renditions(),
                "sound " + soundTrack, "segment " + settings.segmentSeconds(), "chunk " + settings.chunkSeconds(),
                "chunks " + chunks, "");
    }

    /** The numbers of the parts; that of the sound, which is read from end to end and so goes first, is {@link Part#SOUND}. */
    List<Integer> parts() {
        List<Integer> parts = new ArrayList<>();
        if (soundTrack >= 0) {
            parts.add(Part.SOUND);
        }
        for (int i = 0; i < chunks; i++) {
            parts.add(i);
        }
        return parts;
    }

    /** Seconds from the beginning at which a chunk begins, or rather its first key frame at or after that. */
    double begin(int chunk) {
        return (double) chunk * settings.chunkSeconds();
    }

    /** What a part is called. */
    String name(int part) {
        return part == Part.SOUND ? "sound" : chunks == 1 ? "pictures" : Text.format("chunk %d (%s to %s)", part,
                clock(begin(part)), part == chunks - 1 ? "the end" : clock(begin(part + 1)));
    }

    private static String clock(double seconds) {
        long whole = Math.round(seconds);
        return Text.format("%d:%02d:%02d", whole / 3600, whole / 60 % 60, whole % 60);
    }
}
