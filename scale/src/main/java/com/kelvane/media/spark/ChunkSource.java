package com.kelvane.media.spark;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.ParameterSets;
import com.kelvane.media.tool.input.PacketPipe;
import com.kelvane.media.tool.input.Timeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.shell.Failure;
import java.io.Closeable;
import java.io.IOException;
import java.util.Optional;

/**
 * The access units of one chunk: those from the first key frame at or after one time to the first at or after another. That
 * takes no list of key frames: the neighbours find the same ones. Where pictures that are shown before the next chunk's key
 * frame come after it, as in open groups of pictures, that key frame and those pictures are handed out too.
 */
final class ChunkSource implements Closeable {
    private static final double SEEK_MARGIN = 1000; // ms; containers seek by decoding times

    private final VideoTrack track;
    private final Timeline timeline;
    private final Optional<ParameterSets> parameterSets;
    private final double from;
    private final double until;
    private final PacketPipe packets;
    private double begin = Double.NaN;
    private double end = Double.POSITIVE_INFINITY;
    private int read;
    private int count;
    private int handedOut;
    private double lastTime;
    private double lastDecodingTime;

    /**
     * @param configuration the container's. FFmpeg puts its parameter sets before IDR pictures, and the key frame of an open
     *     group of pictures, with which a chunk may begin, is none
     * @param from milliseconds in the result; below 0 for the input's beginning, whatever that is
     * @param until milliseconds in the result, infinite for the input's end
     */
    ChunkSource(VideoTrack track, Timeline timeline, byte[] configuration, double from, double until) {
        this.track = track;
        this.timeline = timeline;
        parameterSets = ParameterSets.in(configuration);
        this.from = from;
        this.until = until;
        double seek = from < 0 ? 0 : (timeline.origin() + from - SEEK_MARGIN) / 1000 - track.file().start();
        packets = new PacketPipe(track.file(), track.index(), Math.max(0, seek), VideoSource.FILTER);
    }

    /** The next access unit; null when there are no more. */
    AccessUnit next() throws IOException {
        for (PacketPipe.Packet packet = packets.next(); packet != null; packet = packets.next()) {
            setTimes(packet);
            if (lastDecodingTime >= (Double.isNaN(begin) ? until : end)) {
                return null; // nothing that is still to come is shown before that
            }
            read++;
            if (Double.isNaN(begin)) {
                if (from >= 0 && !(packet.key() && lastTime >= from)) {
                    continue;
                }
                if (lastTime >= until) {
                    return null;
                }
                begin = from < 0 ? Double.NEGATIVE_INFINITY : Math.round(lastTime);
            } else if (packet.key() && lastTime >= until && end == Double.POSITIVE_INFINITY) {
                end = Math.round(lastTime);
                if (track.reorderDepth() == 0) {
                    return null;
                }
            }
            if (!packet.shown() && lastTime >= 0 && count > 0) {
                throw new Failure("it has an edit list of several parts, which only a player can follow; make one part of it"
                        + " first: ffmpeg -i INPUT OUTPUT");
            }
            count += shows(Math.round(lastTime)) ? 1 : 0;
            byte[] bytes = handedOut++ == 0 && parameterSets.isPresent() ? parameterSets.get().prependTo(packet.bytes())
                    : packet.bytes();
            return new AccessUnit(bytes, Math.round(lastTime));
        }
        return null;
    }

    // Where a container leaves a time out, pictures go on at their rate.
    private void setTimes(PacketPipe.Packet packet) {
        lastDecodingTime = Double.isNaN(packet.decodingTime()) ? lastDecodingTime + 1000 / track.frameRate()
                : timeline.at(packet.decodingTime());
        lastTime = Double.isNaN(packet.time()) ? lastDecodingTime : timeline.at(packet.time());
    }

    /** Whether a picture belongs to the chunk; true of those at and after its end until that is found. */
    boolean shows(long time) {
        return time >= 0 && time >= begin && time < end;
    }

    /** When the next chunk begins, in milliseconds; infinite when no key frame was found behind this one. */
    double end() {
        return end;
    }

    /** Access units handed out whose pictures belong to the chunk. */
    int count() {
        return count;
    }

    /** Whether anything could be read at all, be it before the chunk. */
    boolean readAny() {
        return read > 0;
    }

    /** What is wrong with the file, or null. */
    String damage() {
        return packets.damage();
    }

    @Override
    public void close() {
        packets.close();
    }
}
