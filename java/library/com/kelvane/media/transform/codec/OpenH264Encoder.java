package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;
import java.nio.ByteBuffer;

/**
 * Encodes packed I420 pictures to H.264 access units through FFmpeg's OpenH264 encoder: low delay, no B-frames, a key
 * frame every two seconds of pictures.
 *
 * <p>{@code open}, {@code encode} once for each picture, {@code close}. The access unit comes back in the array that
 * held the picture:
 * <pre>{@code
 * byte[] info = new byte[7];
 * byte[] data = new byte[640 * 480 * 12 / 8];
 * long encoder = OpenH264Encoder.open(640, 480, 30, 1000000, 0);
 * nextPicture(data);
 * if (OpenH264Encoder.encode(data, info, encoder) == 1) {
 *     send(data, ByteBuffer.wrap(info).getInt(1));
 * }
 * OpenH264Encoder.close(encoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class OpenH264Encoder {
    static {
        NativeLibrary.load();
    }

    private OpenH264Encoder() {
    }

    /**
     * Makes an encoder. Another size or rate needs another encoder.
     *
     * @param width picture width in pixels, 16 or more
     * @param height picture height in pixels, 16 or more
     * @param frameRate pictures per second, 1 to 30; less counts as 15, more as 30
     * @param bitRate target in bits per second; less than 256000 counts as 256000
     * @param reserved ignored
     * @return the handle; 0 when FFmpeg has no OpenH264 encoder; -1 when there is no memory. An encoder that does not
     *         open, because of its size for instance, has a handle too: its {@code encode} always returns 0
     */
    public static native long open(int width, int height, int frameRate, int bitRate, int reserved);

    /**
     * Makes an encoder, as {@link #open} does, with the rates as they are.
     *
     * @param width as for {@code open}
     * @param height as for {@code open}
     * @param frameRate pictures per second, above 0
     * @param bitRate target in bits per second, above 0
     * @return as {@code open}
     */
    public static native long openAt(int width, int height, int frameRate, int bitRate);

    /**
     * Encodes one picture and writes its access unit over it.
     *
     * @param data a packed I420 picture of the encoder's size, at least
     *        {@code width * height + 2 * (width / 2) * (height / 2)} bytes; after a result of 1 it begins with the
     *        access unit, and the bytes behind that are unchanged
     * @param info 7 bytes or more; after a result of 1 it holds 1 (whether or not the picture is a key frame), the
     *        bytes of the access unit (4 bytes), 1, 0
     * @param handle the encoder, or 0
     * @return 1 when {@code data} begins with an access unit; 0 when the picture yielded none, when {@code data} is
     *         shorter than the picture or than the access unit (which is then lost), for a handle of 0 or for a null
     *         array
     * @throws ArrayIndexOutOfBoundsException if {@code info} is shorter than 7 bytes; {@code data} then holds the
     *         access unit
     */
    public static native int encode(byte[] data, byte[] info, long handle);

    /**
     * Encodes one picture that is part of an array or of a direct buffer, as {@link #encode} does, and leaves it as it is.
     *
     * @param data holds the packed picture, or null when {@code direct} does
     * @param direct a direct buffer that holds it; its position and limit have no part in this
     * @param from where it begins
     * @param size its bytes
     * @param output receives the access unit, which is no longer than the picture
     * @param info as for {@code encode}
     * @param handle the encoder, or 0
     * @return as {@code encode}; 0 also when there is no such part, or {@code output} is null
     * @throws ArrayIndexOutOfBoundsException if {@code output} is shorter than the access unit, which is then lost, or
     *         {@code info} shorter than 7 bytes
     */
    public static native int encodePart(byte[] data, ByteBuffer direct, int from, int size, byte[] output, byte[] info, long handle);

    /**
     * Whether an encoder can encode.
     *
     * @param handle the encoder, or 0
     * @return 0 when it opened; 1 when it did not, because of its size for instance, and for a handle of 0
     */
    public static native int status(long handle);

    /**
     * Makes the next picture that is encoded a key frame.
     *
     * @param handle the encoder, or 0
     * @return 1 when it will be; 0 when the encoder did not open and for a handle of 0
     */
    public static native int requestKey(long handle);

    /**
     * Sets another target. FFmpeg takes it in an encoder of its own, which this makes: the next picture is a key frame, and
     * no picture is lost.
     *
     * @param bitsPerSecond above 0
     * @param handle the encoder, or 0
     * @return 1 when it holds from the next picture on; 0 when FFmpeg opened no such encoder, the one there was going on,
     *         when the encoder did not open and for a handle of 0
     */
    public static native int setBitrate(int bitsPerSecond, long handle);

    /**
     * Why the last picture yielded no access unit: the encoder skipped it, or failed. After a failure OpenH264 encodes
     * nothing more until {@link #renew}.
     *
     * @param handle the encoder, or 0
     * @return 0 when the picture was encoded or skipped, before the first one and for a handle of 0; otherwise FFmpeg's error
     *         code, or -1 when the picture was too short, its access unit too long or the encoder is not open
     */
    public static native int failure(long handle);

    /**
     * Makes the encoder anew, with the same settings. The picture that it encodes next is a key frame; it may be given the
     * one that failed once more. From then on it has no lines on the standard output for pictures that fail.
     *
     * @param handle the encoder, or 0
     * @return 1 when it encodes again; 0 when FFmpeg did not open it, or it never was open, and for a handle of 0
     */
    public static native int renew(long handle);

    /**
     * Frees the encoder. The handle is dead afterwards.
     *
     * @param handle the encoder, or 0 for no effect
     */
    public static native void close(long handle);
}
