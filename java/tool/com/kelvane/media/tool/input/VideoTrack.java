package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Map;
import java.util.Set;

/**
 * The H.264 track of an input file, as its headers describe it.
 *
 * @param index the track's stream number
 * @param frameRate average pictures per second
 * @param reorderDepth pictures that the decoder may hold back to bring them into display order
 * @param seconds announced duration, 0 when the file announces none
 * @param start time of its first picture in milliseconds
 * @param meaning how its pictures are to be shown
 */
public record VideoTrack(MediaFile file, int index, int width, int height, String pixelFormat, double frameRate,
                         int reorderDepth, double seconds, double start, PictureMeaning meaning) {
    private static final double LEAD_IN = 50; // ms
    private static final Path DEMO = Path.of("share/kelvane/demo.mp4");

    /** @param input as the caller gave it; null stands for the demonstration clip */
    public static VideoTrack given(Path input) throws IOException {
        return of(MediaFile.open(input == null ? DEMO.toAbsolutePath() : Caller.path(input)));
    }

    /** The first H.264 track of a file. */
    public static VideoTrack of(MediaFile file) {
        Map<String, String> video = file.stream(
                stream -> "h264".equals(stream.get("codec_name")) && MediaFile.number(stream, "width") > 0,
                "has no H.264 video, only H.264 can be transcoded");
        double frameRate = rate(video, "avg_frame_rate");
        if (!(frameRate > 0)) {
            frameRate = rate(video, "r_frame_rate");
        }
        double seconds = MediaFile.number(video, "duration");
        return new VideoTrack(file, (int) MediaFile.number(video, "index"), (int) MediaFile.number(video, "width"),
                (int) MediaFile.number(video, "height"), video.get("pix_fmt"), frameRate > 0 ? frameRate : 25,
                (int) MediaFile.number(video, "has_b_frames"),
                seconds > 0 ? seconds : MediaFile.number(file.format(), "duration"),
                1000 * MediaFile.number(video, "start_time"), new PictureMeaning(video));
    }

    /** Absolute path of the file. */
    public Path path() {
        return file.path();
    }

    /**
     * The times of a result.
     *
     * @param sound the track that goes into it, or null
     * @param from seconds from the source's beginning
     * @param seconds that the result takes, may be infinite
     */
    public Timeline timeline(AudioTrack sound, double from, double seconds) throws IOException {
        // Of sound that precedes the pictures by a few milliseconds, an encoder's lead-in, nothing is heard.
        double begin = sound != null && sound.start() < start - LEAD_IN ? sound.start() : start;
        return new Timeline(begin + 1000 * from, 1000 * seconds,
                timed() || reorderDepth == 0 ? null : DisplayOrder.of(file));
    }

    /** Whether the pictures have times, which those of a bare stream lack. */
    public boolean timed() {
        return !file.hasFormat("h264");
    }

    /** Fails when the pictures are not of 8-bit 4:2:0, for which the codecs would take them. */
    public void checkPictures() {
        if (pixelFormat != null && !Set.of("yuv420p", "yuvj420p", "unknown").contains(pixelFormat)) {
            throw new Failure("the pictures of %s are %s, and the codecs work on 8-bit 4:2:0 alone; convert it first:"
                    + " ffmpeg -i INPUT -pix_fmt yuv420p -c:a copy OUTPUT", path(), pixelFormat);
        }
    }

    private static double rate(Map<String, String> entries, String name) {
        String[] fraction = entries.getOrDefault(name, "0/0").split("/");
        return fraction.length == 2 ? Double.parseDouble(fraction[0]) / Double.parseDouble(fraction[1]) : 0;
    }
}
