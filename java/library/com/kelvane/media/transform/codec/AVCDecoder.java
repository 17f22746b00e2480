package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;
import java.nio.ByteBuffer;

/**
 * Decodes H.264 access units to packed I420 pictures.
 *
 * <p>{@code open}, {@code decode} once for each access unit in decoding order, {@code drain} until it returns 0,
 * {@code close}. Pictures come out in display order: a stream that reorders has its first pictures held back. The picture
 * size is learnt from the first picture, for which {@code decode} finds the array too short and {@code take} is there:
 * <pre>{@code
 * byte[] info = new byte[6];
 * byte[] picture = new byte[0];
 * long decoder = AVCDecoder.open();
 * int result = AVCDecoder.decode(accessUnit, info, picture, decoder);
 * if (result < -1) {
 *     picture = new byte[-result];                   // the following pictures fit
 *     result = AVCDecoder.take(info, picture, decoder);
 * }
 * if (result == 1) {
 *     ByteBuffer size = ByteBuffer.wrap(info);
 *     show(picture, Short.toUnsignedInt(size.getShort(1)), Short.toUnsignedInt(size.getShort(3)));
 * }
 * AVCDecoder.close(decoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class AVCDecoder {
    static {
        NativeLibrary.load();
    }

    private AVCDecoder() {
    }

    /**
     * Makes a decoder for one stream.
     *
     * @return the handle; 0 when FFmpeg has no H.264 decoder; -1 when there is no memory. A decoder that FFmpeg fails
     *         to set up has a handle too: its {@code decode} never delivers a picture
     */
    public static native long open();

    /**
     * Decodes one access unit and delivers at most one picture.
     *
     * @param input one access unit or any run of NAL units, beginning with 00 00 00 01
     * @param info 6 bytes or more; after a result of 1 it holds 1, the width and the height in pixels (2 bytes each)
     *        and the low 8 bits of the decoder's pixel format as FFmpeg numbers it (0 for ordinary 4:2:0)
     * @param output exactly the size of the packed I420 picture, {@code width * height * 12 / 8} bytes. Pictures in
     *        another format than 8-bit 4:2:0 are converted to it; bytes that the planes of an odd size do not reach are
     *        0
     * @param handle the decoder, or 0
     * @return 1 when {@code output} and {@code info} hold a picture; 0 when there is none yet, the access unit could
     *         not be decoded or there is no memory, for a handle of 0 or for a null array; -1 when {@code input} is
     *         shorter than 4 bytes or does not begin with 00 00 00 01; minus the size of the picture when
     *         {@code output} is shorter or longer than that
     * @throws ArrayIndexOutOfBoundsException if {@code info} is shorter than 6 bytes; the picture then waits for
     *         {@link #take}, though {@code output} has it already
     */
    public static native int decode(byte[] input, byte[] info, byte[] output, long handle);

    /**
     * Decodes as {@link #decode}, with a time for the picture that the access unit carries.
     *
     * @param timestamp the picture's time in milliseconds, unsigned; its low 32 bits are used
     * @param input as for {@code decode}
     * @param info as for {@code decode}
     * @param output as for {@code decode}
     * @param handle the decoder, or 0
     * @return as {@code decode}
     * @throws ArrayIndexOutOfBoundsException as {@code decode}
     */
    public static native int decodeAt(long timestamp, byte[] input, byte[] info, byte[] output, long handle);

    /**
     * Decodes one access unit that is part of an array or of a direct buffer, as {@link #decodeAt} does. It is copied before
     * anything looks at it.
     *
     * @param timestamp as for {@code decodeAt}
     * @param data holds the access unit, or null when {@code direct} does
     * @param direct a direct buffer that holds it; its position and limit have no part in this
     * @param from where it begins
     * @param size its bytes
     * @param info as for {@code decode}
     * @param output as for {@code decode}
     * @param handle the decoder, or 0
     * @return as {@code decode}; 0 also when there is no such part
     */
    public static native int decodePart(long timestamp, byte[] data, ByteBuffer direct, int from, int size, byte[] info, byte[] output,
                                        long handle);

    /**
     * Delivers the next picture that is held back for reordering; to be called at the end of a stream until it returns
     * 0. The decoder is then ready for a new stream, which begins with a key frame. {@code decode} before that begins a
     * new stream as well: what was still held back is lost.
     *
     * @param info as for {@code decode}
     * @param output as for {@code decode}
     * @param handle the decoder, or 0
     * @return 1 when {@code output} and {@code info} hold a picture; minus the size of the picture when {@code output}
     *         is shorter or longer than that, {@link #take} then hands the picture out; 0 when nothing is held back any
     *         more, for a handle of 0 or for a null array
     * @throws ArrayIndexOutOfBoundsException if {@code info} is shorter than 6 bytes; nothing was done then
     */
    public static native int drain(byte[] info, byte[] output, long handle);

    /**
     * Copies out the picture of the last {@code decode}, {@code decodeAt} or {@code drain} that was answered with a
     * negative length, so that a new size costs no picture. It waits until the next call of one of these.
     *
     * @param info as for {@code decode}
     * @param output as for {@code decode}
     * @param handle the decoder, or 0
     * @return 1 when {@code output} and {@code info} hold the picture, which then no longer waits; minus the size of the
     *         picture, which goes on waiting, when {@code output} is shorter or longer than that; 0 when no picture
     *         waits, there is no memory, for a handle of 0 or for a null array
     * @throws ArrayIndexOutOfBoundsException if {@code info} is shorter than 6 bytes; the picture goes on waiting
     */
    public static native int take(byte[] info, byte[] output, long handle);

    /**
     * The time of the last picture that was decoded: the low 32 bits of what was given with the access unit that carried
     * it, 0 when that was {@code decode}.
     *
     * @param handle the decoder, or 0
     * @return milliseconds, 0 to 4294967295; 0 before the first picture and for a handle of 0
     */
    public static native long pictureTime(long handle);

    /**
     * Frees the decoder. The handle is dead afterwards.
     *
     * @param handle the decoder, or 0 for no effect
     */
    public static native void close(long handle);
}
