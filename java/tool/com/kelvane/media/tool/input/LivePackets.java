package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.MediaProgram;
import java.io.BufferedInputStream;
import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The packets of two tracks as they come, with the times that the source gave them. FFmpeg makes the times of what it writes
 * rise, in any container, and so hides from whoever reads it that a source's times have jumped; what it says of the packets
 * that it reads does not.
 */
final class LivePackets implements Closeable {
    private static final Pattern READ = Pattern.compile("demuxer -> ist_index:\\d+ type:(\\w+) .*?pkt_pts:(\\S+) .*?pkt_dts:(\\S+) .*");
    private static final Pattern WRITTEN = Pattern.compile("muxer <- type:(\\w+) .* size:(\\d+)");
    private static final String VIDEO_FILTER = "h264_mp4toannexb";
    private static final String NO_TIME = "NOPTS";
    private static final String END = "";
    private static final int LARGEST_PACKET = 1 << 24; // bytes
    private static final int VIDEO = 0;
    private static final int SOUND = 1;

    private final MediaProgram.Running program;
    private final InputStream bytes;
    private final BlockingQueue<String> lines = new LinkedBlockingQueue<>();
    private final double[] units;
    private final double[] times = {Double.NaN, Double.NaN};
    private final double[] decodingTimes = {Double.NaN, Double.NaN};

    /**
     * Starts reading. The program ends with the thread that calls this.
     *
     * @param audio may be null
     * @param piped whether the stream is to be written to {@link #input}; otherwise the file is read as fast as it plays
     */
    LivePackets(VideoTrack video, AudioTrack audio, boolean piped) {
        MediaFile file = video.file();
        units = new double[] {file.timeUnit(video.index()), audio == null ? 0 : file.timeUnit(audio.index())};
        List<String> command = new ArrayList<>(List.of("-v", "repeat+info", "-debug_ts"));
        command.addAll(StreamHead.LIMITS);
        command.addAll(piped ? List.of("-i", "pipe:0") : List.of("-re", "-i", file.path().toString()));
        command.addAll(List.of("-map", "0:" + video.index(), "-c", "copy", "-bsf:v", VIDEO_FILTER, "-flush_packets", "1", "-f",
                "data", "pipe:1"));
        if (audio != null) {
            command.addAll(List.of("-map", "0:" + audio.index(), "-flush_packets", "1"));
            command.addAll(!audio.isPcm() ? List.of("-c", "copy", "-f", "data", "pipe:1")
                    : List.of("-ar", Integer.toString(SoundReencoder.sampleRate(audio)), "-ac",
                            Integer.toString(SoundReencoder.channels(audio)), "-c", "pcm_s16le", "-f", "s16le", "pipe:1"));
        }
        program = MediaProgram.FFMPEG.start(Path.of("").toAbsolutePath(), command, piped, this::read);
        bytes = new BufferedInputStream(program.output(), 1 << 16);
    }

    OutputStream input() {
        return program.input();
    }

    private void read(String line) {
        if (line == null) {
            lines.add(END);
        } else if (line.startsWith("demuxer -> ") || line.startsWith("muxer <- ")) {
            lines.add(line);
        }
    }

    /** The next packet; null at the end. */
    LivePacket next() throws IOException {
        for (String line = take(); !line.equals(END); line = take()) {
            Matcher read = READ.matcher(line);
            if (read.matches()) {
                int track = track(read.group(1));
                times[track] = time(read.group(2), units[track]);
                decodingTimes[track] = time(read.group(3), units[track]);
                continue;
            }
            Matcher written = WRITTEN.matcher(line);
            if (written.matches()) {
                int track = track(written.group(1));
                int size = Integer.parseInt(written.group(2));
                if (size > LARGEST_PACKET) {
                    bytes.skipNBytes(size);
                } else {
                    return new LivePacket(track == VIDEO, bytes.readNBytes(size), times[track], decodingTimes[track],
                            System.nanoTime());
                }
            }
        }
        return null;
    }

    private static int track(String type) {
        return type.equals("video") ? VIDEO : SOUND;
    }

    private static double time(String text, double unit) {
        return text.equals(NO_TIME) ? Double.NaN : Long.parseLong(text) * unit;
    }

    private String take() throws IOException {
        try {
            return lines.take();
        } catch (InterruptedException interrupted) {
            throw new IOException("interrupted", interrupted);
        }
    }

    /** Ends the program, so that nothing more is read or written. */
    void stop() {
        program.close();
    }

    @Override
    public void close() {
        stop();
    }
}
