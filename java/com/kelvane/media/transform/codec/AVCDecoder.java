package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Decodes H.264 access units to packed I420 pictures.
 *
 * <p>{@code open}, {@code decode} once for each access unit in decoding order, {@code close}. Pictures come out in
 * display order: a stream that reorders has its first pictures held back, and those still held at {@code close} are
 * lost. The picture size is learnt from the first picture, which is lost to the caller but not to the decoder:
 * <pre>{@code
 * byte[] info = new byte[6];
 * byte[] picture = new byte[0];
 * long decoder = AVCDecoder.open();
 * int result = AVCDecoder.decode(accessUnit, info, picture, decoder);
 * if (result == 1) {
 *     ByteBuffer size = ByteBuffer.wrap(info);
 *     show(picture, Short.toUnsignedInt(size.getShort(1)), Short.toUnsignedInt(size.getShort(3)));
 * } else if (result < -1) {
 *     picture = new byte[-result];                   // the following pictures fit
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
     * @throws ArrayIndexOutOfBoundsException if {@code info} is shorter than 6 bytes
     */
    public static native int decode(byte[] input, byte[] info, byte[] output, long handle);

    /**
     * Frees the decoder. The handle is dead afterwards.
     *
     * @param handle the decoder, or 0 for no effect
     */
    public static native void close(long handle);
}
