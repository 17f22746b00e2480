package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import java.io.ByteArrayOutputStream;
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
 * @param address what FFmpeg's programs open: the path, or where they reach what is no file to them
 * @param streams what was asked for of each stream, by FFmpeg's names
 * @param format the same of the container
 */
public record MediaFile(Path path, String address, List<Map<String, String>> streams, Map<String, String> format) {
    static final String ENTRIES = "stream=index,codec_type,codec_name,profile,width,height,pix_fmt,has_b_frames,"
            + "avg_frame_rate,r_frame_rate,duration,start_time,sample_aspect_ratio,color_range,color_space,color_transfer,"
            + "color_primaries,sample_rate,channels,time_base:stream_disposition=attached_pic,default:stream_tags=rotate"
            + ":format=format_name,duration,start_time";
    // None that would open further addresses, which a file from a stranger could name.
    private static final String REMOTE_FORMATS = "mov,matroska,flv,mpegts,h264,aac,mp3,wav,ogg";

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
        return read(path, path.toString());
    }

    /**
     * A file that is not on this machine.
     *
     * @param address where FFmpeg's programs reach it
     * @param name what messages call it
     */
    public static MediaFile at(String address, Path name) throws IOException {
        return read(name, address);
    }

    private static MediaFile read(Path path, String address) throws IOException {
        MediaFile file = new MediaFile(path, address, new ArrayList<>(), new HashMap<>());
        file.probe(List.of("-show_entries", ENTRIES), file::add);
        return file;
    }

    /** How FFmpeg's programs are told to open the file. */
    List<String> asInput() {
        return address.equals(path.toString()) ? List.of("-i", address)
                : List.of("-format_whitelist", REMOTE_FORMATS, "-i", address);
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
        command.addAll(asInput());
        var error = new MediaProgram.FirstError(address);
        if (MediaProgram.FFPROBE.run(Path.of("").toAbsolutePath(), command, lines, error) != 0) {
            throw new Failure("%s is not a media file that can be read: %s", path, error);
        }
    }

    /** What a decoder of a stream is to know first, as the container has it; empty when it has nothing. */
    public byte[] configuration(int index) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        probe(List.of("-select_streams", Integer.toString(index), "-show_entries", "stream=extradata", "-show_data", "-of",
                "default=noprint_wrappers=1"), line -> {
                    // A dump: an offset of eight digits, groups of four digits and, behind two spaces, the characters.
                    if (line.matches("[0-9a-f]{8}: .*")) {
                        String digits = line.substring(10).replaceFirst("  .*", "").replace(" ", "");
                        for (int i = 0; i + 1 < digits.length(); i += 2) {
                            bytes.write(Integer.parseInt(digits.substring(i, i + 2), 16));
                        }
                    }
                });
        return bytes.toByteArray();
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
        return hasIndex() ? Math.max(0, timeline.origin() / 1000 - 1 - start()) : 0;
    }

    /** Whether the container is of a kind with an index, by which FFmpeg finds a time without reading all before it. */
    public boolean hasIndex() {
        return hasFormat("mov") || hasFormat("matroska");
    }

    /** The time at which the first of its tracks begins, in seconds. */
    public double start() {
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
