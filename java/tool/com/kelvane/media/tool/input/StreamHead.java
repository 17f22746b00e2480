package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.MediaProgram;
import java.io.BufferedReader;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The beginning of a stream that can be read but once, and what its headers say.
 *
 * @param bytes all that was read
 * @param file without streams when it is nothing that FFmpeg knows
 */
record StreamHead(byte[] bytes, MediaFile file) {
    /** How much FFmpeg looks at before it says what there is, the same each time. */
    static final List<String> LIMITS = List.of("-analyzeduration", "1000000", "-probesize", "2000000"); // 1 s
    /** What a decoder is to know first, as hexadecimal digits. */
    static final String EXTRADATA = "extradata";
    private static final Pattern DUMP = Pattern.compile("\\|extradata=(.*?)(?:\\||$)");
    private static final Pattern DUMP_LINE = Pattern.compile("\\\\n[0-9a-f]{8}: ((?:[0-9a-f]{2,4} )*[0-9a-f]{2,4})");
    private static final int CHUNK = 1 << 15; // bytes

    /** @param name the stream's, for messages */
    static StreamHead read(Path name, InputStream stream) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        List<String> command = new ArrayList<>(List.of("-v", "error", "-of", "compact", "-show_data", "-show_entries",
                MediaFile.ENTRIES.replace(":stream_disposition", "," + EXTRADATA + ":stream_disposition")));
        command.addAll(LIMITS);
        command.add("pipe:0");
        try (MediaProgram.Running program = MediaProgram.FFPROBE.start(Path.of("").toAbsolutePath(), command, true, line -> { })) {
            feed(stream, program.input(), bytes);
            MediaFile file = new MediaFile(name, name.toString(), new ArrayList<>(), new HashMap<>());
            try (BufferedReader lines = new BufferedReader(new InputStreamReader(program.output(), StandardCharsets.UTF_8))) {
                for (String line = lines.readLine(); line != null; line = lines.readLine()) {
                    add(line, file);
                }
            }
            program.finish();
            return new StreamHead(bytes.toByteArray(), file);
        }
    }

    private static void feed(InputStream stream, OutputStream program, ByteArrayOutputStream bytes) throws IOException {
        byte[] chunk = new byte[CHUNK];
        for (int length = stream.read(chunk); length >= 0; length = stream.read(chunk)) {
            bytes.write(chunk, 0, length);
            try {
                program.write(chunk, 0, length);
                program.flush();
            } catch (IOException hasSeenEnough) {
                return;
            }
        }
        try {
            program.close();
        } catch (IOException hasSeenEnough) {
            // It prints what it found all the same.
        }
    }

    private static void add(String line, MediaFile file) {
        Matcher dump = DUMP.matcher(line);
        file.add(dump.replaceFirst("|"));
        if (line.startsWith("stream|") && dump.find(0)) {
            StringBuilder digits = new StringBuilder();
            Matcher part = DUMP_LINE.matcher(dump.group(1));
            while (part.find()) {
                digits.append(part.group(1).replace(" ", ""));
            }
            Map<String, String> stream = file.streams().get(file.streams().size() - 1);
            stream.putIfAbsent(EXTRADATA, digits.toString());
        }
    }
}
