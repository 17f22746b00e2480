package com.kelvane.media.tool;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;

/**
 * The H.264 track of an input file, as its headers describe it.
 *
 * @param path absolute path of the file
 * @param index the track's stream number
 * @param frameRate average pictures per second
 * @param reorderDepth pictures that the decoder may hold back to bring them into display order
 * @param seconds announced duration, 0 when the file announces none
 * @param raw whether the file is a bare Annex-B stream, which has neither timestamps nor an index
 */
record VideoTrack(Path path, int index, int width, int height, String pixelFormat, double frameRate, int reorderDepth,
                  double seconds, boolean raw) {
    private static final Path DEMO = Path.of("share/kelvane/demo.mp4");

    /** @param input as the caller gave it; null stands for the demonstration clip */
    static VideoTrack given(Path input) throws IOException {
        return open(input == null ? DEMO.toAbsolutePath() : Caller.DIRECTORY.resolve(input).normalize());
    }

    private static VideoTrack open(Path path) throws IOException {
        if (!Files.exists(path)) {
            throw new Failure("%s: no such file", path);
        }
        if (Files.isDirectory(path)) {
            throw new Failure("%s is a directory; give a media file", path);
        }
        if (!Files.isReadable(path)) {
            throw new Failure("%s: permission denied", path);
        }
        List<Map<String, String>> streams = new ArrayList<>();
        Map<String, String> format = new HashMap<>();
        var error = new MediaProgram.FirstError(path);
        int exitCode = MediaProgram.FFPROBE.run(Path.of("").toAbsolutePath(), List.of("-v", "error", "-of", "compact",
                "-show_entries", "stream=index,codec_type,codec_name,width,height,pix_fmt,has_b_frames,avg_frame_rate,"
                + "r_frame_rate,duration:stream_disposition=attached_pic:format=format_name,duration",
                path.toString()), line -> {
                    Map<String, String> entries = entries(line);
                    if (line.startsWith("stream|")) {
                        streams.add(entries);
                    } else if (line.startsWith("format|")) {
                        format.putAll(entries);
                    }
                }, error);
        if (exitCode != 0) {
            throw new Failure("%s is not a media file that can be read: %s", path, error);
        }
        Map<String, String> video = streams.stream()
                .filter(stream -> "h264".equals(stream.get("codec_name")) && number(stream, "width") > 0)
                .findFirst().orElseThrow(() -> new Failure("%s has no H.264 video, only H.264 can be transcoded; found: %s",
                        path, describe(streams)));
        double frameRate = rate(video, "avg_frame_rate");
        if (!(frameRate > 0)) {
            frameRate = rate(video, "r_frame_rate");
        }
        double seconds = number(video, "duration");
        return new VideoTrack(path, (int) number(video, "index"), (int) number(video, "width"),
                (int) number(video, "height"), video.get("pix_fmt"), frameRate > 0 ? frameRate : 25,
                (int) number(video, "has_b_frames"), seconds > 0 ? seconds : number(format, "duration"),
                "h264".equals(format.get("format_name")));
    }

    /** Whether the transcoder shows the track's colours: it takes every picture for 8-bit 4:2:0. */
    boolean hasPlainPictures() {
        return "yuv420p".equals(pixelFormat) || "yuvj420p".equals(pixelFormat);
    }

    private static Map<String, String> entries(String line) {
        Map<String, String> entries = new HashMap<>();
        for (String entry : line.split("\\|")) {
            int equals = entry.indexOf('=');
            if (equals > 0) {
                entries.put(entry.substring(0, equals), entry.substring(equals + 1));
            }
        }
        return entries;
    }

    private static double number(Map<String, String> entries, String name) {
        try {
            return Double.parseDouble(entries.getOrDefault(name, "0"));
        } catch (NumberFormatException notAvailable) {
            return 0;
        }
    }

    private static double rate(Map<String, String> entries, String name) {
        String[] fraction = entries.getOrDefault(name, "0/0").split("/");
        return fraction.length == 2 ? Double.parseDouble(fraction[0]) / Double.parseDouble(fraction[1]) : 0;
    }

    private static String describe(List<Map<String, String>> streams) {
        return streams.isEmpty() ? "nothing" : streams.stream()
                .map(stream -> stream.getOrDefault("codec_type", "unknown") + " " + stream.getOrDefault("codec_name", ""))
                .map(String::strip).distinct().collect(Collectors.joining(", "));
    }
}
