package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import com.kelvane.media.tool.shell.Text;
import java.io.BufferedInputStream;
import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.regex.Pattern;

/** A track's packets, one after the other, as FFmpeg copies them out of their container. */
public final class PacketPipe implements Closeable {
    /**
     * One packet; times in milliseconds, the source's own.
     *
     * @param time of presentation, NaN when the container has none
     * @param decodingTime never above that of presentation, NaN when the container has none
     * @param shown false where an edit list has it decoded for others alone
     */
    public record Packet(byte[] bytes, double time, double decodingTime, double duration, boolean key, boolean shown) {
    }

    // stream, decoding time, presentation time, duration, size, checksum, flags unless it is a key frame
    private static final Pattern PACKET = Pattern.compile("0,( *-?\\d+, *){4}0x.*");
    // Matroska has no decoding times, and FFmpeg guesses them: what it says of its own guesses is no damage.
    private static final Pattern GUESS = Pattern.compile(".*pts \\(-?\\d+\\) < dts \\(-?\\d+\\) in stream \\d+");
    private static final String TIME_BASE = "#tb 0: ";
    private static final String END = "";
    private static final int SIGNALLED = 128; // exit codes above: what was read until then is not all there is
    private static final int KEY = 1;
    private static final int NOT_SHOWN = 4;

    private final Path path;
    private final MediaProgram.Running program;
    private final InputStream bytes;
    private final BlockingQueue<String> lines = new LinkedBlockingQueue<>();
    private final MediaProgram.FirstError error;
    private final double begin; // of the times that FFmpeg tells, in milliseconds
    private double unit;
    private boolean ended;

    /**
     * Packets as they are.
     *
     * @param from second of the source to begin at or before; 0 to begin at the beginning
     * @param filter FFmpeg's bitstream filters, may be empty
     */
    public PacketPipe(MediaFile file, int index, double from, String filter) {
        this(file, index, from, copy(filter), "data");
    }

    private static List<String> copy(String filter) {
        return filter.isEmpty() ? List.of("-c", "copy") : List.of("-c", "copy", "-bsf", filter);
    }

    /** Packets of PCM as samples of 16 bits. */
    static PacketPipe ofPcm(MediaFile file, int index, double from, int sampleRate, int channels) {
        return new PacketPipe(file, index, from, List.of("-ar", Integer.toString(sampleRate), "-ac",
                Integer.toString(channels), "-c", "pcm_s16le"), "s16le");
    }

    private PacketPipe(MediaFile file, int index, double from, List<String> conversion, String format) {
        path = file.path();
        // FFmpeg counts from there.
        begin = 1000 * (file.start() + from);
        error = new MediaProgram.FirstError(file.address());
        List<String> command = new ArrayList<>(List.of("-v", "error"));
        if (from > 0) {
            command.addAll(List.of("-ss", Text.format("%.6f", from)));
        }
        command.addAll(file.asInput());
        // Both outputs carry the same packets: one their sizes and times, which come first, the other the bytes.
        for (List<String> output : List.of(List.of("framecrc", "pipe:2"), List.of(format, "pipe:1"))) {
            command.addAll(List.of("-map", "0:" + index));
            command.addAll(conversion);
            command.addAll(List.of("-flush_packets", "1", "-f", output.get(0), output.get(1)));
        }
        if (file.hasFormat("mpegts")) {
            // Where its times jump, FFmpeg closes the gap of all tracks alike that it has to do with.
            command.addAll(List.of("-map", "0:v?", "-map", "0:a?", "-c", "copy", "-f", "null", "-"));
        }
        program = MediaProgram.FFMPEG.start(Path.of("").toAbsolutePath(), command, false, this::read);
        bytes = new BufferedInputStream(program.output(), 1 << 16);
    }

    private void read(String line) {
        if (line == null) {
            lines.add(END);
        } else if (line.startsWith(TIME_BASE) || PACKET.matcher(line).matches()) {
            lines.add(line);
        } else if (!line.startsWith("#") && !GUESS.matcher(line).matches()) {
            error.accept(line);
        }
    }

    /** The next packet; null when there are no more. */
    public Packet next() throws IOException {
        while (!ended) {
            String line = take();
            if (line.equals(END)) {
                ended = true;
                int exitCode = program.finish();
                if (exitCode > SIGNALLED) {
                    throw new Failure("FFmpeg was ended while it read %s", path);
                }
                if (exitCode != 0 && unit == 0) {
                    throw new Failure("%s could not be read: %s", path, error);
                }
            } else if (line.startsWith(TIME_BASE)) {
                String[] fraction = line.substring(TIME_BASE.length()).split("/");
                unit = 1000 * Double.parseDouble(fraction[0]) / Double.parseDouble(fraction[1]);
            } else {
                String[] fields = line.split(", *");
                byte[] packet = bytes.readNBytes(Integer.parseInt(fields[4]));
                // Flags are printed unless they are those of a key frame alone.
                int flags = fields.length > 6 && fields[6].startsWith("F=") ? Integer.decode(fields[6].substring(2)) : KEY;
                return new Packet(packet, time(fields[2]), time(fields[1]), Long.parseLong(fields[3]) * unit,
                        (flags & KEY) != 0, (flags & NOT_SHOWN) == 0);
            }
        }
        return null;
    }

    private double time(String field) {
        long time = Long.parseLong(field);
        return time == Long.MIN_VALUE ? Double.NaN : time * unit + begin;
    }

    private String take() throws IOException {
        try {
            return lines.take();
        } catch (InterruptedException interrupted) {
            throw new IOException("interrupted", interrupted);
        }
    }

    /** What is wrong with the file, or null. */
    public String damage() {
        return error.isEmpty() ? null : error.toString();
    }

    @Override
    public void close() {
        program.close();
    }
}
