package com.kelvane.media;

import com.kelvane.media.transform.codec.AVCDecoder;
import java.nio.ByteBuffer;
import java.util.Objects;
import java.util.Optional;
import java.util.function.Consumer;

/**
 * Decodes H.264 to packed pictures of 8-bit 4:2:0; other formats are converted to it.
 * <pre>{@code
 * try (VideoDecoder decoder = VideoDecoder.open()) {
 *     for (AccessUnit unit : source) {
 *         decoder.decode(unit.bytes(), unit.time()).ifPresent(this::show);
 *     }
 *     decoder.drain(this::show);
 * }
 * }</pre>
 *
 * <p>Pictures come out in display order, each with its own time and size. A stream that reorders pictures has its first
 * ones held back; {@link #drain} hands out the last ones. What cannot be decoded gives no picture, and the stream goes on
 * at its next key picture.
 *
 * <p>One thread may use a decoder at a time: anything else is refused with an {@link IllegalStateException}.
 */
public final class VideoDecoder implements AutoCloseable {
    private final Engine engine;
    private final byte[] info = new byte[6];
    private final SpareArray spare = new SpareArray();
    private int size; // bytes of the last picture
    private final Times times = new Times(Times.MILLISECONDS);

    private VideoDecoder() {
        engine = Engine.open("VideoDecoder", AVCDecoder::open, AVCDecoder::close);
    }

    /**
     * {@return a new decoder, to be closed}
     *
     * @throws MediaException if the native library is missing, with the places tried, or there is no memory
     */
    public static VideoDecoder open() {
        Natives.load();
        return new VideoDecoder();
    }

    /**
     * Decodes one access unit.
     *
     * @param accessUnit one access unit in byte-stream form, see {@link AccessUnit}; not changed and not kept
     * @param time presentation time of its picture, in any unit
     * @return the picture that came out, which with reordering is an earlier one; it is the caller's
     * @throws IllegalArgumentException if {@code accessUnit} does not begin with a start code
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public Optional<Picture> decode(byte[] accessUnit, long time) {
        return decode(Part.of(accessUnit), time);
    }

    /**
     * As {@link #decode(byte[], long)}, of an access unit in an array that may hold more.
     *
     * @param accessUnit holds one access unit; not changed and not kept
     * @param offset where it begins
     * @param length its bytes
     * @param time as there
     * @return as there
     * @throws IndexOutOfBoundsException if the array has no such part
     */
    public Optional<Picture> decode(byte[] accessUnit, int offset, int length, long time) {
        return decode(Part.of(accessUnit, offset, length), time);
    }

    /**
     * As {@link #decode(byte[], long)}, of an access unit in a buffer, see {@link Transcoder#write(ByteBuffer, long, Consumer)}.
     *
     * @param accessUnit what remains in it is one access unit, and is taken; its bytes are not changed and not kept
     * @param time as there
     * @return as there
     */
    public Optional<Picture> decode(ByteBuffer accessUnit, long time) {
        return decode(Part.of(accessUnit), time);
    }

    private Optional<Picture> decode(Part accessUnit, long time) {
        Part unit = AnnexB.checked(accessUnit);
        long handle = engine.enter("decode");
        try {
            unit.take();
            int carried = times.write(time, 0);
            byte[] output = spare.take(size);
            int result = AVCDecoder.decodePart(carried, unit.array, unit.direct, unit.from, unit.size, info, output, handle);
            return Optional.ofNullable(picture(result, output, handle));
        } finally {
            engine.exit();
        }
    }

    /**
     * Hands out the pictures that are still held back; to be called at the end of a stream. After that the decoder takes
     * another stream, which begins with a key picture.
     *
     * @param receiver gets each picture, on the calling thread
     * @return the number of pictures that were held back
     * @throws IllegalStateException if this decoder is closed or in use
     */
    public int drain(Consumer<? super Picture> receiver) {
        Objects.requireNonNull(receiver, "receiver");
        long handle = engine.enter("drain");
        try {
            Failures failures = new Failures();
            int drained = 0;
            while (true) {
                byte[] output = spare.take(size);
                Picture picture = picture(AVCDecoder.drain(info, output, handle), output, handle);
                if (picture == null) {
                    failures.rethrow();
                    return drained;
                }
                failures.of(() -> receiver.accept(picture));
                drained++;
            }
        } finally {
            engine.exit();
        }
    }

    /**
     * Gives a picture's memory back for a following one, which spares the garbage collector a large array a picture. The
     * caller must not use the picture any more. Any thread may call this at any time.
     *
     * @param picture one that this decoder handed out
     */
    public void recycle(Picture picture) {
        spare.give(picture.i420());
    }

    // Null when there is none; `output` then serves the next call.
    private Picture picture(int result, byte[] output, long handle) {
        byte[] i420 = output;
        int outcome = result;
        if (outcome < -1) { // another size than the last picture's
            size = -outcome;
            i420 = new byte[size];
            outcome = AVCDecoder.take(info, i420, handle);
        }
        if (outcome != 1) {
            spare.give(i420);
            return null;
        }
        ByteBuffer about = ByteBuffer.wrap(info);
        return new Picture(Short.toUnsignedInt(about.getShort(1)), Short.toUnsignedInt(about.getShort(3)),
                times.of(AVCDecoder.pictureTime(handle)), i420);
    }

    /**
     * Frees the native engine; nothing when that was done before.
     * When another thread uses this decoder, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called from a callback of this decoder
     */
    @Override
    public void close() {
        engine.close();
    }
}
