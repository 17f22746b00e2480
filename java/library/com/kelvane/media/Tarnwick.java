package com.kelvane.media;

/**
 * Raw FFmpeg primitives for Java code that drives FFmpeg itself: memory, frames, packets and picture scaling. Native
 * addresses travel as {@code long} values; the class keeps no state and prints nothing.
 *
 * <h2>Addresses</h2>
 *
 * <p><strong>No address is checked</strong>, except for 0, with which a method does nothing or reports a failure. A
 * wrong address, or one that was freed, crashes the virtual machine or corrupts its memory. So do planes and strides of
 * a frame that do not hold the picture its scaling context reads. Java arrays are checked: a call never touches an
 * array that is too short. The caller owns everything it allocates here and frees it once; the garbage collector frees
 * nothing.
 *
 * <table class="striped">
 * <caption>Where addresses come from and where they go</caption>
 * <thead>
 * <tr><th scope="col">Address<th scope="col">Comes from<th scope="col">Goes to<th scope="col">Freed with
 * </thead>
 * <tbody>
 * <tr><th scope="row">memory<td>{@link #av_malloc}<td>{@code data} of {@link #avframe_set_data}, {@code ptr} of
 *     {@link #avpicture_fill}<td>{@link #av_free}
 * <tr><th scope="row">frame ({@code AVFrame})<td>{@link #avcodec_alloc_frame}<td>the {@code avframe_} methods,
 *     {@code picture} of {@link #avpicture_fill}, {@code srcFrame} of
 *     {@link #sws_scale(long, long, int, int, Object, int, int, int) sws_scale}<td>{@link #avcodec_free_frame}
 * <tr><th scope="row">scaling context ({@code SwsContext})<td>{@link #sws_getCachedContext}<td>{@code context} of both
 *     {@code sws_scale} methods<td>{@link #sws_freeContext}
 * <tr><th scope="row">packet ({@code AVPacket})<td>the caller's own native code<td>{@link #avpacket_set_data}<td>that
 *     code
 * </tbody>
 * </table>
 *
 * <p>A frame does not own the planes that {@link #avframe_set_data} or {@link #avpicture_fill} give it: freeing the
 * frame leaves them, and their memory is freed after the frame's last use. A scaling context passed to
 * {@link #sws_getCachedContext} belongs to that call; only the address it returns is used from then on.
 *
 * <p>Calls on different frames, packets and contexts may run on different threads at once; one of them is used by one
 * call at a time. {@code sws_scale} and {@link #avpacket_set_data} work on Java arrays in place, which may hold off the
 * garbage collector for the length of the call.
 *
 * <p>FFmpeg's scaler reads and writes some bytes beyond the rows of many pictures and wants aligned planes. A picture
 * in an array is scaled in place if its width is a multiple of 16, each of its strides is one of 32 bytes, and the
 * virtual machine happens to have aligned the array to 16 bytes, as it does with large ones. Otherwise a padded native
 * copy of it is, at the cost of copying the picture; so for {@code RGB24}, {@code BGR24}, the formats whose alpha or
 * padding comes first, any source of fast bilinear scaling, and slices with an odd number of rows or from bottom to top.
 * Of a source that is converted at its own size, only the planes of chroma are copied. A native frame is the caller's to pad: give it planes aligned
 * to 64 bytes, strides that are multiples of 64, and 64 bytes behind its last row.
 *
 * <h2>Pictures</h2>
 *
 * <p>Pixel formats are numbered as in FFmpeg 4: 0 is I420 ({@code YUV420P}), 2 {@code RGB24}, 3 {@code BGR24}, 8
 * {@code GRAY8}, 23 {@code NV12}, 26 {@code RGBA}, 28 {@code BGRA}, 37 {@code RGB565}. In an array or in memory the
 * rows and planes of a picture follow one another without padding. I420 is {@code height} rows of {@code width} bytes
 * of Y, then {@code (height + 1) / 2} rows of {@code (width + 1) / 2} bytes of U, then as many of V: for odd sizes more
 * than the packed pictures of {@link com.kelvane.media.transform.codec} take. {@link #avpicture_fill} tells the size in
 * bytes of a picture of any format.
 *
 * <p>An array may be of any primitive type with room for those bytes: a {@code byte[]} for all formats, an
 * {@code int[]} of 0xAARRGGBB pixels for {@code BGRA}, a {@code short[]} for {@code RGB565}.
 *
 * <h2>Example</h2>
 *
 * <p>Scales an RGB picture into I420 of half its size and back:
 * <pre>{@code
 * static final int I420 = 0, RGB24 = 2, BILINEAR = 2;
 *
 * static byte[] halveAndRestore(byte[] rgb, int width, int height) {
 *     int halfWidth = width / 2, halfHeight = height / 2;
 *     byte[] half = new byte[halfWidth * halfHeight + 2 * ((halfWidth + 1) / 2) * ((halfHeight + 1) / 2)];
 *     byte[] restored = new byte[width * height * 3];
 *
 *     long down = Tarnwick.sws_getCachedContext(0, width, height, RGB24, halfWidth, halfHeight, I420, BILINEAR);
 *     long up = Tarnwick.sws_getCachedContext(0, halfWidth, halfHeight, I420, width, height, RGB24, BILINEAR);
 *     try {
 *         if (down == 0 || up == 0
 *                 || Tarnwick.sws_scale(down, rgb, RGB24, width, height, 0, height,
 *                         half, I420, halfWidth, halfHeight) != halfHeight
 *                 || Tarnwick.sws_scale(up, half, I420, halfWidth, halfHeight, 0, halfHeight,
 *                         restored, RGB24, width, height) != height) {
 *             throw new IllegalStateException("picture not scaled");
 *         }
 *     } finally {
 *         Tarnwick.sws_freeContext(down);
 *         Tarnwick.sws_freeContext(up);
 *     }
 *     return restored;
 * }
 * }</pre>
 */
public final class Tarnwick {
    static {
        NativeLibrary.load();
    }

    private Tarnwick() {
    }

    /**
     * Allocates native memory, aligned for FFmpeg. Its content is undefined.
     *
     * @param size bytes, 0 or more; a negative size counts as 2 GiB or more, which FFmpeg refuses
     * @return the address of the memory, or 0 when there is none
     */
    public static native long av_malloc(int size);

    /**
     * Frees memory of {@link #av_malloc}.
     *
     * @param ptr the address of the memory, or 0 for no effect
     */
    public static native void av_free(long ptr);

    /**
     * Allocates a frame without planes.
     *
     * @return the address of the frame, or 0 when there is no memory
     */
    public static native long avcodec_alloc_frame();

    /**
     * Frees a frame, but not the planes it was given.
     *
     * @param frame the address of the frame, or 0 for no effect
     */
    public static native void avcodec_free_frame(long frame);

    /**
     * Sets the addresses of a frame's first three planes: {@code data}, {@code data + offset1} and
     * {@code data + offset1 + offset2}. For planes stored one behind the other the offsets are the sizes of the first
     * and of the second plane.
     *
     * @param frame the address of the frame
     * @param data the address of plane 0; it must stay allocated as long as the frame is used
     * @param offset1 bytes from plane 0 to plane 1
     * @param offset2 bytes from plane 1 to plane 2
     */
    public static native void avframe_set_data(long frame, long data, long offset1, long offset2);

    /**
     * Sets the strides of a frame's first three planes.
     *
     * @param frame the address of the frame
     * @param linesize0 bytes from one row of plane 0 to the next
     * @param linesize1 the same for plane 1
     * @param linesize2 the same for plane 2
     */
    public static native void avframe_set_linesize(long frame, int linesize0, int linesize1, int linesize2);

    /**
     * Marks a frame as a key frame of picture type I, or as no key frame and of no picture type.
     *
     * @param frame the address of the frame
     * @param keyFrame whether it is a key frame
     */
    public static native void avframe_set_key_frame(long frame, boolean keyFrame);

    /**
     * Resizes a packet to {@code size} bytes and fills it with {@code data[offset]} to {@code data[offset + size - 1]}.
     * A range that does not lie within the array leaves the packet unchanged; so does an array that the virtual machine
     * cannot pin. When the packet cannot grow, nothing is copied. None of this is reported.
     *
     * @param packet the address of the packet
     * @param data the bytes to copy; with null the packet is only resized, and what it grew by is zero
     * @param offset index of the first byte to copy
     * @param size bytes to copy, and the packet's new size; 0 or more
     */
    public static native void avpacket_set_data(long packet, byte[] data, int offset, int size);

    /**
     * Lays a picture over memory: sets the plane addresses and strides of a frame. Copies no pixel.
     *
     * @param picture the address of the frame (or of an {@code AVPicture}, with which a frame begins)
     * @param ptr the address of the picture's bytes, which must stay allocated as long as the frame is used; with 0 the
     *        call only tells the size, and the frame's planes must not be used
     * @param pix_fmt pixel format
     * @param width in pixels
     * @param height in pixels
     * @return the size of the picture in bytes; 1024 more for formats of one byte a pixel such as {@code GRAY8}, whose
     *         fixed palette FFmpeg counts in but no array needs; a negative FFmpeg error code for a format or size it
     *         rejects
     */
    public static native int avpicture_fill(long picture, long ptr, int pix_fmt, int width, int height);

    /**
     * Gives a scaling context for these parameters: {@code context} itself when FFmpeg finds that it serves them;
     * otherwise {@code context} is freed and a new one made.
     *
     * @param context the address of an earlier context, or 0
     * @param srcW source width in pixels
     * @param srcH source height in pixels
     * @param srcFormat source pixel format
     * @param dstW target width in pixels
     * @param dstH target height in pixels
     * @param dstFormat target pixel format
     * @param flags FFmpeg's scaling flags: 1 fast bilinear, 2 bilinear, 4 bicubic, 16 nearest neighbour, 32 area
     *        average; 0 for FFmpeg's default
     * @return the address of the context to use from now on; 0 when FFmpeg cannot scale so, {@code context} being freed
     *         all the same
     */
    public static native long sws_getCachedContext(long context, int srcW, int srcH, int srcFormat, int dstW, int dstH,
            int dstFormat, int flags);

    /**
     * Frees a scaling context.
     *
     * @param context the address of the context, or 0 for no effect
     */
    public static native void sws_freeContext(long context);

    /**
     * Scales rows of a native frame into a Java array. A whole picture is one call with {@code srcSliceY} 0 and
     * {@code srcSliceH} its height. The picture may also come in slices on the same context, from top to bottom or from
     * bottom to top, without gap or repetition: the frame's planes then begin at the slice's first row, which is the first
     * one of a row of chroma. A picture that was begun is begun anew from the same end, or given whole.
     *
     * <p>The results for its slices add up to the height of {@code context}'s target. A slice may complete no row of it;
     * where FFmpeg cannot scale in slices, none does but the last: with Bayer pictures, strong reductions, sinc, some
     * sizes from bottom to top. The first slice given to a context takes some milliseconds more for large pictures.
     *
     * <p>{@code dst} is written as the picture that it is described as. That may be larger than the one of {@code context},
     * which then comes to lie in its upper left corner and leaves the rest alone.
     *
     * @param context the address of the scaling context, made for this source and target
     * @param srcFrame the address of the source frame, its planes and strides set
     * @param srcSliceY the slice's first row in the source picture
     * @param srcSliceH rows of the slice
     * @param dst array that receives the target picture
     * @param dstFormat pixel format of the picture in {@code dst}
     * @param dstW its width in pixels
     * @param dstH its height in pixels
     * @return the rows written to {@code dst}, the height of {@code context}'s target for a whole picture; 0, nothing being
     *         written, for a slice of no rows, for one in the middle of a picture that was not begun, and when a picture
     *         lacks planes that {@code context} needs; -1, nothing being written, when {@code dst} is null, no array of a
     *         primitive type, shorter than its picture or cannot be pinned, or when the slice is not the one that follows;
     *         a negative FFmpeg error code when FFmpeg rejects the format or size of the picture in {@code dst}, when the
     *         slice does not lie in the picture or divides a row of chroma, or when there is no memory
     */
    public static native int sws_scale(long context, long srcFrame, int srcSliceY, int srcSliceH, Object dst,
            int dstFormat, int dstW, int dstH);

    /**
     * Scales rows of a picture in one Java array into another, as the other {@code sws_scale} does with a frame. The
     * rows are read from the start of each of the source's planes, wherever the slice lies in the picture. The picture in
     * {@code src} may be larger than the one of {@code context}, which takes its upper left part, or just hold the slice.
     *
     * @param context the address of the scaling context, made for this source and target
     * @param src array that holds the source picture; not the array of the target
     * @param srcFormat pixel format of the picture in {@code src}
     * @param srcW its width in pixels
     * @param srcH its height in pixels
     * @param srcSliceY the slice's first row in the source of {@code context}, 0 for a whole picture
     * @param srcSliceH rows of the slice, the height of {@code context}'s source for a whole picture
     * @param dst array that receives the target picture
     * @param dstFormat pixel format of the picture in {@code dst}
     * @param dstW its width in pixels
     * @param dstH its height in pixels
     * @return as for the other {@code sws_scale}, of either array
     */
    public static native int sws_scale(long context, Object src, int srcFormat, int srcW, int srcH, int srcSliceY,
            int srcSliceH, Object dst, int dstFormat, int dstW, int dstH);
}
