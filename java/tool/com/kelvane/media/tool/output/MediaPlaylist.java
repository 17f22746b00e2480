package com.kelvane.media.tool.output;

import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/**
 * The segments of one track, as FFmpeg's playlist has them.
 *
 * @param durations of the segments in seconds
 * @param sizes of the segments in bytes
 * @param targetDuration in seconds
 */
public record MediaPlaylist(Path folder, List<Double> durations, List<Long> sizes, int targetDuration) {
    private static final String TARGET = "#EXT-X-TARGETDURATION:";
    private static final String SEGMENT = "#EXTINF:";

    /** @param folder the segments and their playlist */
    public static MediaPlaylist read(Path folder) throws IOException {
        List<Double> durations = new ArrayList<>();
        List<Long> sizes = new ArrayList<>();
        int target = 0;
        for (String line : Files.readAllLines(folder.resolve(Hls.PLAYLIST))) {
            if (line.startsWith(TARGET)) {
                target = Integer.parseInt(line.substring(TARGET.length()));
            } else if (line.startsWith(SEGMENT)) {
                durations.add(Double.parseDouble(line.substring(SEGMENT.length(), line.indexOf(','))));
            } else if (!line.startsWith("#") && !line.isBlank()) {
                sizes.add(Files.size(folder.resolve(line)));
            }
        }
        if (durations.isEmpty() || durations.size() != sizes.size()) {
            throw new Failure("FFmpeg wrote a playlist without segments for %s; --no-hls leaves it out",
                    folder.getFileName());
        }
        return new MediaPlaylist(folder, durations, sizes, target);
    }

    /** Seconds of all segments. */
    public double seconds() {
        return durations.stream().mapToDouble(Double::doubleValue).sum();
    }

    /** Bits per second of all segments. */
    public long averageBandwidth() {
        return bandwidth(sizes.stream().mapToLong(Long::longValue).sum(), seconds());
    }

    /**
     * The largest bit rate of any segments in a row that take half to one and a half of the target duration, which is what
     * a player may have to load in that time; the average where none do.
     */
    public long peakBandwidth() {
        long peak = averageBandwidth();
        for (int begin = 0; begin < sizes.size(); begin++) {
            long bytes = 0;
            double taken = 0;
            for (int i = begin; i < sizes.size() && taken + durations.get(i) <= 1.5 * targetDuration; i++) {
                bytes += sizes.get(i);
                taken += durations.get(i);
                if (taken >= 0.5 * targetDuration) {
                    peak = Math.max(peak, bandwidth(bytes, taken));
                }
            }
        }
        return peak;
    }

    /** Whether the segments begin at the same times as those of another track, to the millisecond. */
    public boolean isCutLike(MediaPlaylist other) {
        double begin = 0;
        double otherBegin = 0;
        for (int i = 0; i < Math.min(durations.size(), other.durations.size()); i++) {
            if (Math.abs(begin - otherBegin) > 0.001) {
                return false;
            }
            begin += durations.get(i);
            otherBegin += other.durations.get(i);
        }
        return durations.size() == other.durations.size();
    }

    private static long bandwidth(long bytes, double seconds) {
        return (long) Math.ceil(8 * bytes / Math.max(seconds, 0.001));
    }
}
