package com.kelvane.media;

import java.nio.ByteBuffer;
import java.util.Arrays;

/**
 * One picture of one rendition, as a {@link Transcoder} hands it to its receiver. It is valid during that callback only;
 * {@link #copy} is what can be kept.
 */
public final class EncodedPicture {
    private final Rendition rendition;
    private final int index;
    private final long time;
    // Belongs to the rendition's output, which writes the next picture over it.
    private byte[] bytes;
    private final int size;

    EncodedPicture(Rendition rendition, int index, long time, byte[] bytes, int size) {
        this.rendition = rendition;
        this.index = index;
        this.time = time;
        this.bytes = bytes;
        this.size = size;
    }

    /** {@return the rendition that the picture belongs to} */
    public Rendition rendition() {
        return rendition;
    }

    /** {@return the rendition's position in {@link Transcoder#renditions}, from 0} */
    public int index() {
        return index;
    }

    /**
     * {@return the picture's own presentation time in milliseconds: the one that was given with the access unit that
     * carried it} In a stream that reorders pictures these times rise, where those of the access units do not.
     */
    public long time() {
        return time;
    }

    /** {@return the bytes of its access unit} */
    public int size() {
        return size;
    }

    /**
     * {@return whether decoding can begin here: parameter sets and an IDR picture}
     *
     * @throws IllegalStateException if the callback is over
     */
    public boolean isKey() {
        return AnnexB.isKey(valid(), size);
    }

    /**
     * {@return the access unit, a read-only buffer from 0 to {@link #size}} Its contents change when the callback is
     * over.
     *
     * @throws IllegalStateException if the callback is over
     */
    public ByteBuffer data() {
        return ByteBuffer.wrap(valid(), 0, size).slice().asReadOnlyBuffer();
    }

    /**
     * {@return the access unit in an array of its own}
     *
     * @throws IllegalStateException if the callback is over
     */
    public byte[] copy() {
        return Arrays.copyOf(valid(), size);
    }

    /** The array that begins with the access unit. */
    byte[] bytes() {
        return valid();
    }

    /** Ends the picture's validity. */
    void invalidate() {
        bytes = null;
    }

    private byte[] valid() {
        byte[] current = bytes;
        if (current == null) {
            throw new IllegalStateException("the bytes of an EncodedPicture are valid during its callback only; keep a copy()");
        }
        return current;
    }
}
