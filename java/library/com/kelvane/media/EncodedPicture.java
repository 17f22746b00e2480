package com.kelvane.media;

import java.nio.ByteBuffer;
import java.time.Duration;
import java.util.Arrays;
import java.util.Objects;
import java.util.Optional;

/**
 * One picture of one rendition, as a {@link Transcoder} hands it to its receiver. It is valid during that callback only;
 * {@link #copy} is what can be kept.
 */
public final class EncodedPicture {
    private final Rendition rendition;
    private final int index;
    private final long time;
    // Belongs to the encoding, which a later picture is written over.
    private byte[] bytes;
    private final int size;
    private final int encodedAs;
    private final boolean askedFor;
    private final long encodeTime;
    private final long latency;
    private final ParameterSets newSets;

    /**
     * @param latency in nanoseconds
     * @param newSets null where those of the picture before still hold
     */
    EncodedPicture(Encoding encoding, int index, long time, long latency, ParameterSets newSets) {
        this.index = index;
        this.time = time;
        this.latency = latency;
        this.newSets = newSets;
        rendition = encoding.rendition;
        bytes = encoding.bytes;
        size = encoding.size;
        encodedAs = encoding.encodedAs;
        askedFor = encoding.askedFor;
        encodeTime = encoding.nanoseconds;
    }

    /** How a picture is coded. */
    public enum Type {
        /** In itself; nothing behind it refers to what precedes it, so that decoding can begin here. */
        IDR,
        /** In itself. */
        I,
        /** With reference to pictures before it. */
        P
    }

    /**
     * {@return the rendition that the picture belongs to, with the settings that it was encoded with} A change by
     * {@link Transcoder#bitrate} or {@link Transcoder#frameRate} shows first in the picture that carries it.
     */
    public Rendition rendition() {
        return rendition;
    }

    /** {@return the rendition's position in {@link Transcoder#renditions}, from 0} */
    public int index() {
        return index;
    }

    /**
     * {@return the picture's own presentation time: the very one that was given with the access unit that
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
     * {@return whether this is the key picture that {@link Transcoder#requestKey}, {@link Transcoder#resume} or
     * {@link PicturePlan#key} asked for}
     */
    public boolean isAskedFor() {
        return askedFor;
    }

    /**
     * {@return the parameter sets that hold from this picture on, when it is the rendition's first one or they change with it}
     * They change when a rendition takes another's place or size, and may when its encoder was made anew. Each key picture
     * carries those that hold, in its bytes.
     */
    public Optional<ParameterSets> newParameterSets() {
        return Optional.ofNullable(newSets);
    }

    /** {@return how it is coded} */
    public Type type() {
        return type(encodedAs);
    }

    static Type type(int encodedAs) {
        return switch (encodedAs >> 8) {
            case 1 -> Type.IDR;
            case 2 -> Type.I;
            default -> Type.P;
        };
    }

    /** {@return the average quantiser of its macroblocks, 1 (finest) to 51; 0 where OpenH264 does not tell} */
    public int quantiser() {
        return encodedAs & 0xff;
    }

    /** {@return the time that scaling and encoding it took, by the clock} */
    public Duration encodeTime() {
        return Duration.ofNanos(encodeTime);
    }

    /**
     * {@return the time from the {@link Transcoder#write} of its access unit to this callback} Where a stream reorders
     * pictures that includes the calls in which the decoder held it back, and the caller's own time between them.
     */
    public Duration latency() {
        return Duration.ofNanos(latency);
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

    /**
     * Copies the access unit to where the caller wants it.
     *
     * @param target receives {@link #size} bytes at its position, which goes behind them; direct ones too
     * @throws java.nio.BufferOverflowException if fewer remain there; nothing is written then
     * @throws java.nio.ReadOnlyBufferException if it is read-only
     * @throws IllegalStateException if the callback is over
     */
    public void copyTo(ByteBuffer target) {
        target.put(valid(), 0, size);
    }

    /**
     * Copies the access unit to where the caller wants it.
     *
     * @param target receives {@link #size} bytes
     * @param offset where to
     * @throws IndexOutOfBoundsException if there is no room for them; nothing is written then
     * @throws IllegalStateException if the callback is over
     */
    public void copyTo(byte[] target, int offset) {
        Objects.checkFromIndexSize(offset, size, target.length);
        System.arraycopy(valid(), 0, target, offset, size);
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
