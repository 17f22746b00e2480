package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Decodes MP3 frames to PCM at the stream's own sampling rate and channel count.
 *
 * <p>{@code open}, {@code decode} once for each MP3 frame in order (frames refer back to earlier ones), {@code close}.
 * {@code decode} does not return a count: the caller clears {@code info[0]} and looks whether it has become 1. The
 * channel count is that of the MP3 frame header.
 * <pre>{@code
 * byte[] info = new byte[5];
 * byte[] pcm = new byte[4608];                       // the largest frame: 1152 stereo samples
 * long decoder = MPADecoder.open();
 * info[0] = 0;
 * int result = MPADecoder.decode(frame, info, pcm, decoder);
 * if (info[0] == 1) {
 *     int samples = ByteBuffer.wrap(info).getInt(1);
 *     play(pcm, samples * channels * 2);
 * }
 * MPADecoder.close(decoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class MPADecoder {
    static {
        NativeLibrary.load();
    }

    private MPADecoder() {
    }

    /**
     * Makes a decoder for one stream.
     *
     * @return the handle; 0 when FFmpeg has no MP3 decoder that delivers 16-bit samples, when it does not open or when
     *         there is no memory
     */
    public static native long open();

    /**
     * Decodes one MP3 frame. At most one frame is decoded; further bytes of {@code input} are dropped.
     *
     * @param input one MP3 frame with its header
     * @param info 5 bytes or more; written only when a frame was delivered: 1, then the samples per channel (4 bytes)
     * @param output receives {@code samples * channels * 2} bytes of PCM; 4608 bytes always suffice
     * @param handle the decoder, or 0
     * @return 0 whether a frame was delivered or not, and for a handle of 0 or a null array; minus the bytes needed
     *         when {@code output} is shorter, the frame being lost
     * @throws ArrayIndexOutOfBoundsException if {@code info} is shorter than 5 bytes
     */
    public static native int decode(byte[] input, byte[] info, byte[] output, long handle);

    /**
     * Frees the decoder. The handle is dead afterwards.
     *
     * @param handle the decoder, or 0 for no effect
     */
    public static native void close(long handle);
}
