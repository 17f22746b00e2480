package com.kelvane.media.tool.input;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Text;
import java.io.Closeable;
import java.io.IOException;
import java.util.ArrayDeque;
import java.util.Queue;

/**
 * A track's access units in decoding order, read from its file one by one, with their times in the result.
 */
public final class VideoSource implements Closeable {
    private static final int LARGEST_HOLD = 1 << 26; // bytes
    /** FFmpeg's filter for access units as the library takes them. */
    public static final String FILTER = "h264_mp4toannexb,h264_metadata=aud=insert"; // each unit begins with a start code

    private final VideoTrack track;
    private final Timeline timeline;
    private final PacketPipe packets;
    private final Queue<AccessUnit> held = new ArrayDeque<>(); // since the last key frame before the beginning
    private int heldBytes;
    private boolean begun;
    private int count;
    private double lastTime;
    private double lastDecodingTime;

    /** Opens the track; may be done more than once. */
    public VideoSource(VideoTrack track, Timeline timeline) {
        this.track = track;
        this.timeline = timeline;
        begun = !track.timed();
        packets = new PacketPipe(track.file(), track.index(), track.file().seek(timeline), FILTER);
    }

    /** The next access unit that is to be decoded; null at the end. */
    public AccessUnit next() throws IOException {
        while (begun ? held.isEmpty() : true) {
            PacketPipe.Packet packet = packets.next();
            if (packet == null || track.timed() && timeline.at(packet.decodingTime()) >= timeline.length()) {
                begun = true;
                break;
            }
            AccessUnit unit = new AccessUnit(packet.bytes(), timeOf(packet));
            if (!packet.shown() && unit.time() >= 0 && count + held.size() > 0) {
                throw new Failure("%s has an edit list of several parts, which only a player can follow; make one part of it"
                        + " first: ffmpeg -i INPUT OUTPUT", track.path());
            }
            if (!begun && packet.key() && unit.time() <= 0) {
                held.clear();
                heldBytes = 0;
            }
            held.add(unit);
            heldBytes += unit.bytes().length;
            begun |= unit.time() >= 0 || heldBytes > LARGEST_HOLD;
        }
        AccessUnit unit = held.poll();
        count += unit == null ? 0 : 1;
        return unit;
    }

    private long timeOf(PacketPipe.Packet packet) {
        if (!track.timed()) {
            int number = count + held.size();
            int[] order = timeline.displayOrder();
            int rank = order == null ? number : order[Math.min(number, order.length - 1)];
            return Math.round(timeline.at(1000 / track.frameRate() * rank));
        }
        // Where a container leaves a time out, pictures go on at their rate.
        lastDecodingTime = Double.isNaN(packet.decodingTime()) ? lastDecodingTime + 1000 / track.frameRate()
                : packet.decodingTime();
        lastTime = timeline.at(Double.isNaN(packet.time()) ? lastDecodingTime : packet.time());
        return Math.round(lastTime);
    }

    /** Access units that were handed out. */
    public int count() {
        return count;
    }

    /**
     * What is wrong with the file once all of it is read, or null.
     *
     * @param seconds that it turned out to have
     */
    public String damage(double seconds) {
        // MPEG-TS announces nothing: where its times jump, what FFmpeg makes of them is no length.
        return Double.isInfinite(timeline.length()) && !track.file().hasFormat("mpegts") && track.seconds() - timeline.origin() / 1000 > seconds + 1
                ? Text.format("its video ends after %.1f of the announced %.1f seconds", seconds, track.seconds())
                : packets.damage();
    }

    @Override
    public void close() {
        packets.close();
    }
}
