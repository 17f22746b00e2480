package com.kelvane.media.tool.packager;

import com.kelvane.media.ContainerWriter;
import com.kelvane.media.Fragment;
import com.kelvane.media.MediaTrack;
import java.io.Closeable;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;

/** Makes the segments of one track: of the pictures of a rendition, or of the sound. Each is a CMAF fragment. */
public final class TrackWriter implements Closeable {
    private static final int LARGEST_FRAGMENT = 32 << 20; // bytes; a segment beyond that is made of several

    private final ContainerWriter writer;
    private final int timescale;
    private final List<byte[]> fragments = new ArrayList<>(); // of the segment
    private int size; // of all of them, in bytes
    private long begin; // of the segment, in ticks
    private long taken; // by its fragments that are done
    private int pending; // bytes of units that no fragment holds yet

    public TrackWriter(MediaTrack track) {
        timescale = track.timescale();
        writer = ContainerWriter.builder(ContainerWriter.Format.FRAGMENTED_MP4).track(track).open();
    }

    /** {@return the ticks of a second} */
    public int timescale() {
        return timescale;
    }

    /**
     * Adds a unit that lasts until the next one.
     *
     * @param time in ticks
     * @param key whether decoding can begin with it
     * @return whether it was written; units ahead of 0, and pictures ahead of the first parameter sets, are not
     */
    public boolean write(byte[] unit, long time, boolean key) {
        if (pending + unit.length > LARGEST_FRAGMENT) {
            endFragment(time);
        }
        boolean written = writer.write(0, unit, time, time, 0, key);
        pending += written ? unit.length : 0;
        return written;
    }

    /**
     * Ends a segment.
     *
     * @param next when the next unit comes, in ticks, or would come
     * @return what was written since the last one; empty when nothing was
     */
    public Optional<Segment> cut(long next) {
        endFragment(next);
        if (size == 0) {
            return Optional.empty();
        }
        byte[] bytes = fragments.get(0); // a copy of it is saved where there is but one
        if (fragments.size() > 1) {
            ByteBuffer all = ByteBuffer.allocate(size);
            fragments.forEach(all::put);
            bytes = all.array();
        }
        Segment done = new Segment((double) begin / timescale, (double) taken / timescale, bytes);
        fragments.clear();
        size = 0;
        taken = 0;
        return Optional.of(done);
    }

    private void endFragment(long next) {
        pending = 0;
        Fragment fragment = writer.cut(next).orElse(null);
        if (fragment != null) {
            begin = size == 0 ? fragment.decodeTime() : begin;
            taken += fragment.duration();
            fragments.add(fragment.bytes());
            size += fragment.bytes().length;
        }
    }

    /** {@return what players are to have ahead of the segments; known with the first key picture} */
    public byte[] initialisation() {
        return writer.initSegment();
    }

    /** {@return what RFC 6381 calls the codec; known with the first key picture} */
    public String codecs() {
        return writer.codecs();
    }

    @Override
    public void close() {
        writer.close();
    }
}
