package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.Consumer;
import java.util.function.Predicate;
import java.util.stream.Collectors;

/**
 * A media file as its headers describe it.
 *
 * @param path absolute path of the file
 * @param streams what was asked for of each stream, by FFmpeg's names
 * @param format the same of the container
 */
public record MediaFile(Path path, List<Map<String, String>> streams, Map<String, String> format) {
    static final String ENTRIES = "stream=index,codec_type,codec_name,profile,width,height,pix_fmt,has_b_frames,"
            + "avg_frame_rate,r_frame_rate,duration,start_time,sample_aspect_ratio,color_range,color_space,color_transfer,"
            + "color_primaries,sample_rate,channels,time_base:stream_disposition=attached_pic,default:stream_tags=rotate"
            + ":format=format_name,duration,start_time";

    public static MediaFile open(Path path) throws IOException {
        if (!Files.exists(path)) {
            throw new Failure("%s: no such file", path);
        }
        if (Files.isDirectory(path)) {
            throw new Failure("%s is a directory; give a media file", path);
        }
        if (!Files.isReadable(path)) {
            throw new Failure("%s: permission denied", path);
        }
        MediaFile file = new MediaFile(path, new ArrayList<>(), new HashMap<>());
        file.probe(List.of("-show_entries", ENTRIES), file::add);
        return file;
    }

    /** Takes one of the lines that FFprobe prints for {@link #ENTRIES}. */
    void add(String line) {
        if (line.startsWith("stream|")) {
            Map<String, String> stream = entries(line);
            // Where a container has programs, their streams are listed once more.
            if (streams.stream().noneMatch(known -> known.get("index").equals(stream.get("index")))) {
                streams.add(stream);
            }
        } else if (line.startsWith("format|")) {
            format.putAll(entries(line));
        }
    }

    /** What is known of the stream of a number. */
    Map<String, String> stream(int index) {
        return streams.stream().filter(stream -> number(stream, "index") == index).findFirst().orElseThrow();
    }

    /** Milliseconds that a track counts its times in. */
    double timeUnit(int index) {
        String[] base = stream(index).getOrDefault("time_base", "1/1000").split("/");
        return 1000 * Double.parseDouble(base[0]) / Double.parseDouble(base[1]);
    }

    /** Runs FFprobe on the file and hands on the lines it prints, entries separated by bars. */
    public void probe(List<String> arguments, Consumer<String> lines) throws IOException {
        List<String> command = new ArrayList<>(List.of("-v", "error", "-of", "compact"));
        command.addAll(arguments);
        command.add(path.toString());
        var error = new MediaProgram.FirstError(path);
        if (MediaProgram.FFPROBE.run(Path.of("").toAbsolutePath(), command, lines, error) != 0) {
            throw new Failure("%s is not a media file that can be read: %s", path, error);
        }
    }

    /** The first stream that is wanted; a failure that begins with the file's name when there is none. */
    public Map<String, String> stream(Predicate<Map<String, String>> wanted, String problem) {
        return streams.stream().filter(wanted).findFirst().orElseThrow(() -> new Failure("%s %s; found: %s", path, problem,
                streams.isEmpty() ? "nothing" : streams.stream()
                        .map(stream -> stream.getOrDefault("codec_type", "unknown") + " "
                                + stream.getOrDefault("codec_name", ""))
                        .map(String::strip).distinct().collect(Collectors.joining(", "))));
    }

    /** The second to begin reading at for a result, after the file's own start; 0 where the container has no index. */
    double seek(Timeline timeline) {
        return hasFormat("mov") || hasFormat("matroska") ? Math.max(0, timeline.origin() / 1000 - 1 - start()) : 0;
    }

    /** The time at which the first of its tracks begins, in seconds. */
    double start() {
        return streams.stream().filter(stream -> List.of("video", "audio").contains(stream.get("codec_type")))
                .filter(stream -> hasFormat("mpegts") && number(stream, "start_time") != 0)
                .mapToDouble(stream -> number(stream, "start_time")).min().orElse(number(format, "start_time"));
    }

    /** Whether the container is, or may be, one of FFmpeg's name. */
    boolean hasFormat(String name) {
        return List.of(format.getOrDefault("format_name", "").split(",")).contains(name);
    }

    /** 0 when there is none. */
    public static double number(Map<String, String> entries, String name) {
        try {
            return Double.parseDouble(entries.getOrDefault(name, "0"));
        } catch (NumberFormatException notAvailable) {
            return 0;
        }
    }

    public static Map<String, String> entries(String line) {
        Map<String, String> entries = new HashMap<>();
        for (String entry : line.split("\\|")) {
            int equals = entry.indexOf('=');
            if (equals > 0) {
                entries.put(entry.substring(0, equals), entry.substring(equals + 1));
            }
        }
        return entries;
    }
}
