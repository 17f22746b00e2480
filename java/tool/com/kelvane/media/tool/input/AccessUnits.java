package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import java.io.BufferedInputStream;
import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;

/**
 * A track's access units in decoding order, as an Annex-B file in a working folder, each with its size and its presentation
 * time. Every access unit begins with a delimiter.
 */
public final class AccessUnits {
    private static final String FILE = "source.h264";

    private static final String PACKETS = "source.framecrc";
    private static final byte[] DELIMITER = {0, 0, 0, 1, 9};

    /** Seconds to read beyond the end that is asked for, to have in any case what its last pictures refer to. */
    private static final double READ_AHEAD = 10;

    /** One access unit; its time in milliseconds, at first from any origin. */
    private record Unit(int size, boolean keyFrame, boolean timed, double time) {
        Unit at(double newTime) {
            return new Unit(size, keyFrame, true, newTime);
        }
    }

    private final Path stream;
    private final String damage;
    private List<Unit> units;

    /**
     * Copies the track out of its container.
     *
     * @param start seconds, brought forward to the key frame at or before it
     * @param duration seconds from start, 0 for all
     * @param folder where the file is put
     */
    public AccessUnits(VideoTrack track, double start, double duration, Path folder) throws IOException {
        stream = folder.resolve(FILE);
        List<String> command = new ArrayList<>(List.of("-v", "error"));
        if (duration > 0 && !track.raw()) {
            // Spares reading a long file to its end; what to keep is decided below. With raw streams FFmpeg cannot.
            command.addAll(List.of("-t", Double.toString(start + duration + READ_AHEAD)));
        }
        command.addAll(List.of("-i", track.path().toString()));
        // Both outputs carry the same packets: one the bytes, the other their sizes and times.
        for (List<String> output : List.of(List.of("h264", FILE), List.of("framecrc", PACKETS))) {
            command.addAll(List.of("-map", "0:" + track.index(), "-c", "copy",
                    "-bsf:v", "h264_mp4toannexb,h264_metadata=aud=insert", "-f", output.get(0), output.get(1)));
        }
        var error = new MediaProgram.FirstError(track.path());
        int exitCode = MediaProgram.FFMPEG.run(folder, command, line -> { }, error);
        if (exitCode != 0) {
            throw new Failure("the video of %s could not be copied out of it: %s", track.path(), error);
        }
        readPackets(folder.resolve(PACKETS));
        if (units.stream().anyMatch(unit -> !unit.timed)) {
            timeByDisplayOrder(track, folder);
        }
        if (units.isEmpty()) {
            throw new Failure("%s has no pictures", track.path());
        }
        beginAtZero();
        double seconds = units.stream().mapToDouble(Unit::time).max().orElse(0) / 1000 + 1 / track.frameRate();
        if (start > 0 || duration > 0) {
            if (start > seconds) {
                throw new Failure("%s ends after %.1f seconds; begin earlier with --start", track.path(), seconds);
            }
            cut(1000 * start, duration > 0 ? 1000 * (start + duration) : Double.POSITIVE_INFINITY, folder);
        }
        damage = duration == 0 && track.seconds() > seconds + 1
                ? String.format("its video ends after %.1f of the announced %.1f seconds", seconds, track.seconds())
                : error.isEmpty() ? null : error.toString();
    }

    public int count() {
        return units.size();
    }

    /** Presentation time of an access unit in milliseconds; the earliest of all is 0. */
    public long time(int index) {
        return Math.round(units.get(index).time);
    }

    /** What is wrong with the file, or null. */
    public String damage() {
        return damage;
    }

    private void readPackets(Path packets) throws IOException {
        units = new ArrayList<>();
        double unit = 0;
        try (Stream<String> lines = Files.lines(packets)) {
            for (String line : (Iterable<String>) lines::iterator) {
                if (line.startsWith("#tb 0: ")) {
                    String[] fraction = line.substring(7).split("/");
                    unit = 1000 * Double.parseDouble(fraction[0]) / Double.parseDouble(fraction[1]);
                } else if (!line.startsWith("#")) {
                    // stream, decoding time, presentation time, duration, size, checksum, flags unless it is a key frame
                    String[] fields = line.split(",\\s*");
                    long time = Long.parseLong(fields[2]);
                    units.add(new Unit(Integer.parseInt(fields[4]), !line.contains(", F="), time != Long.MIN_VALUE, time * unit));
                }
            }
        }
    }

    /** Gives a stream without timestamps the times of its average rate, in the order in which its pictures are shown. */
    private void timeByDisplayOrder(VideoTrack track, Path folder) throws IOException {
        double interval = 1000 / track.frameRate();
        Map<Long, Integer> ranks = new HashMap<>();
        if (track.reorderDepth() > 0) {
            // The position of a shown picture's packet tells which access unit it came from; its samples do not matter.
            MediaProgram.FFPROBE.run(folder, List.of("-v", "quiet", "-threads", "2", "-skip_idct", "all",
                    "-skip_loop_filter", "all", "-f", "h264", "-show_entries", "frame=pkt_pos", "-of", "compact=p=0:nk=1",
                    FILE), line -> ranks.put(Long.parseLong(line), ranks.size()), line -> { });
        }
        long position = 0;
        double time = 0;
        for (int i = 0; i < units.size(); i++) {
            Unit unit = units.get(i);
            if (track.reorderDepth() == 0) {
                time = i * interval;
            } else if (ranks.containsKey(position)) {
                time = ranks.get(position) * interval;
            } // else it shows no picture, and any time near by will do
            units.set(i, unit.at(time));
            position += unit.size;
        }
    }

    private void beginAtZero() {
        double earliest = units.stream().mapToDouble(Unit::time).min().orElse(0);
        units.replaceAll(unit -> unit.at(unit.time - earliest));
    }

    /** Keeps what decoding the pictures from one time up to another takes. */
    private void cut(double from, double to, Path folder) throws IOException {
        int first = 0;
        int end = 0;
        for (int i = 0; i < units.size(); i++) {
            if (units.get(i).keyFrame && units.get(i).time <= from) {
                first = i;
            }
            if (units.get(i).time < to) {
                end = i + 1;
            }
        }
        long position = units.subList(0, first).stream().mapToLong(Unit::size).sum();
        units = new ArrayList<>(units.subList(first, end));
        beginAtZero();
        long length = units.stream().mapToLong(Unit::size).sum();
        Path whole = folder.resolve("whole.h264");
        Files.move(stream, whole, StandardCopyOption.ATOMIC_MOVE);
        try (FileChannel source = FileChannel.open(whole);
                FileChannel target = FileChannel.open(stream, StandardOpenOption.CREATE, StandardOpenOption.WRITE)) {
            for (long done = 0; done < length; ) {
                done += source.transferTo(position + done, length - done, target);
            }
        }
        Files.delete(whole);
    }

    public Reader read() throws IOException {
        return new Reader();
    }

    /** Reads the access units one after the other. */
    public final class Reader implements Closeable {
        private final InputStream input = new BufferedInputStream(Files.newInputStream(stream), 1 << 16);
        private int index;

        private Reader() throws IOException {
        }

        public byte[] next() throws IOException {
            byte[] unit = input.readNBytes(units.get(index++).size);
            for (int i = 0; i < DELIMITER.length; i++) {
                if (i >= unit.length || unit[i] != DELIMITER[i]) {
                    throw new IOException("access unit " + index + " of the extracted stream does not begin with a delimiter");
                }
            }
            return unit;
        }

        @Override
        public void close() throws IOException {
            input.close();
        }
    }
}
