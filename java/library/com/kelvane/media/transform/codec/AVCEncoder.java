package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Encodes packed I420 pictures to H.264 by driving OpenH264 directly. The access unit stays inside the encoder, until
 * its next picture: this class measures and exercises the encoder, it does not hand bytes to Java, and no failure shows
 * in its results. {@link MIRVProcessor} delivers what the same encoder makes; {@link OpenH264Encoder} encodes single
 * pictures.
 *
 * <p>{@code open}, {@code encode} once for each picture, {@code close}:
 * <pre>{@code
 * long encoder = AVCEncoder.open(640, 480, 30, 60, 1000000);
 * AVCEncoder.encode(picture, null, encoder);         // picture: 640 * 480 * 12 / 8 bytes
 * AVCEncoder.close(encoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and where the OpenH264 library must lie: see the
 * {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class AVCEncoder {
    static {
        NativeLibrary.load();
    }

    private AVCEncoder() {
    }

    /**
     * Makes an encoder with rate control by bit rate. The OpenH264 library is loaded by the first call that finds it.
     *
     * @param width picture width in pixels, even, 16 or more
     * @param height picture height in pixels, even, 16 or more
     * @param fps pictures per second, 1 to 60; any other value counts as 30
     * @param keyInterval key-frame period in pictures, 1 to 480; 0 counts as {@code fps * 4}, any other value as
     *        {@code fps * 8}
     * @param bitrate target and maximum in bits per second, above 0
     * @return the handle, also when the OpenH264 library is missing or refuses these values; 0 when there is no memory
     */
    public static native long open(int width, int height, int fps, int keyInterval, int bitrate);

    /**
     * Encodes one picture and releases the access unit of the previous one.
     *
     * @param picture a packed I420 picture of the encoder's size, {@code width * height * 12 / 8} bytes; a shorter
     *        array is not encoded, the excess of a longer one is ignored
     * @param ignored not looked at; may be null
     * @param handle the encoder, or 0
     * @return 0 in every case, a handle of 0 and a null {@code picture} among them
     */
    public static native int encode(byte[] picture, byte[] ignored, long handle);

    /**
     * Loads the OpenH264 library from a path of the caller's choice, for all encoders of the process. To be called
     * before the first of them opens; without it, that one looks at the fixed place.
     *
     * @param path path of the shared library; a bare file name is searched for as the dynamic loader does
     * @return 1 when OpenH264 is loaded, by this call or before it; 0 when the file cannot be opened, is no OpenH264 or
     *         one of a version other than 1.8 to 2.6, or for a null path
     */
    public static native int loadLibrary(String path);

    /**
     * Tells why {@link #loadLibrary} takes no library from a path. The file is opened to find out, and closed again.
     *
     * @param path as for {@link #loadLibrary}
     * @return the reason, for instance the version of a library whose version is not known; null when there is none, or
     *         for a null path
     */
    public static native String problem(String path);

    /**
     * Frees the encoder. The handle is dead afterwards.
     *
     * @param handle the encoder, or 0 for no effect
     */
    public static native void close(long handle);
}
