package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
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
final class PacketPipe implements Closeable {
    /**
     * One packet; times in milliseconds, the source's own.
     *
     * @param time of presentation, NaN when the container has none
     * @param decodingTime never above that of presentation, NaN when the container has none
     */
    record Packet(byte[] bytes, double time, double decodingTime, double duration, boolean key) {
    }

    // stream, decoding time, presentation time, duration, size, checksum, flags unless it is a key frame
    private static final Pattern PACKET = Pattern.compile("0,( *-?\\d+, *){4}0x.*");
    private static final String TIME_BASE = "#tb 0: ";
    private static final String END = "";
    private static final int KEY = 1; // the flag, where flags are printed

    private final Path path;
    private final MediaProgram.Running program;
    private final InputStream bytes;
    private final BlockingQueue<String> lines = new LinkedBlockingQueue<>();
    private final MediaProgram.FirstError error;
    private double unit;
    private boolean ended;

    /**
     * Packets as they are.
     *
     * @param before FFmpeg's options for the input
     * @param filter FFmpeg's bitstream filters, may be empty
     */
    PacketPipe(Path path, int index, List<String> before, String filter) {
        this(path, index, before, copy(filter), "data");
    }

    private static List<String> copy(String filter) {
        return filter.isEmpty() ? List.of("-c", "copy") : List.of("-c", "copy", "-bsf", filter);
    }

    /** Packets of PCM as samples of 16 bits. */
    static PacketPipe ofPcm(Path path, int index, List<String> before, int sampleRate, int channels) {
        return new PacketPipe(path, index, before, List.of("-ar", Integer.toString(sampleRate), "-ac",
                Integer.toString(channels), "-c", "pcm_s16le"), "s16le");
    }

    private PacketPipe(Path path, int index, List<String> before, List<String> conversion, String format) {
        this.path = path;
        error = new MediaProgram.FirstError(path);
        List<String> command = new ArrayList<>(List.of("-v", "error", "-copyts"));
        command.addAll(before);
        command.addAll(List.of("-i", path.toString()));
        // Both outputs carry the same packets: one their sizes and times, which come first, the other the bytes.
        for (List<String> output : List.of(List.of("framecrc", "pipe:2"), List.of(format, "pipe:1"))) {
            command.addAll(List.of("-map", "0:" + index));
            command.addAll(conversion);
            command.addAll(List.of("-flush_packets", "1", "-f", output.get(0), output.get(1)));
        }
        program = MediaProgram.FFMPEG.start(path.getParent(), command, false, this::read);
        bytes = new BufferedInputStream(program.output(), 1 << 16);
    }

    private void read(String line) {
        if (line == null) {
            lines.add(END);
        } else if (line.startsWith(TIME_BASE) || PACKET.matcher(line).matches()) {
            lines.add(line);
        } else if (!line.startsWith("#")) {
            error.accept(line);
        }
    }

    /** The next packet; null when there are no more. */
    Packet next() throws IOException {
        while (!ended) {
            String line = take();
            if (line.equals(END)) {
                ended = true;
                if (program.finish() != 0 && unit == 0) {
                    throw new Failure("%s could not be read: %s", path, error);
                }
            } else if (line.startsWith(TIME_BASE)) {
                String[] fraction = line.substring(TIME_BASE.length()).split("/");
                unit = 1000 * Double.parseDouble(fraction[0]) / Double.parseDouble(fraction[1]);
            } else {
                String[] fields = line.split(", *");
                byte[] packet = bytes.readNBytes(Integer.parseInt(fields[4]));
                boolean key = fields.length < 7 || !fields[6].startsWith("F=")
                        || (Integer.decode(fields[6].substring(2)) & KEY) != 0;
                return new Packet(packet, time(fields[2]), time(fields[1]), Long.parseLong(fields[3]) * unit, key);
            }
        }
        return null;
    }

    private double time(String field) {
        long time = Long.parseLong(field);
        return time == Long.MIN_VALUE ? Double.NaN : time * unit;
    }

    private String take() throws IOException {
        try {
            return lines.take();
        } catch (InterruptedException interrupted) {
            throw new IOException("interrupted", interrupted);
        }
    }

    /** What is wrong with the file, or null. */
    String damage() {
        return error.isEmpty() ? null : error.toString();
    }

    @Override
    public void close() {
        program.close();
    }
}
