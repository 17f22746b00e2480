package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Encodes PCM, mono or stereo, to raw AAC-LC access units (no ADTS header) at 64000 bits per second, or
 * at another rate ({@code openAt}).
 *
 * <p>{@code open}, then {@code encode} with one block of 1024 samples per channel after the other, {@code close}. The
 * encoder looks ahead: its first calls yield nothing, and what it still holds at {@code close} is lost.
 * <pre>{@code
 * byte[] info = new byte[6];
 * byte[] packet = new byte[2 * 2048];
 * long encoder = AACEncoder.open(2, 44100);
 * int bytes = AACEncoder.encode(pcm, info, packet, encoder);     // pcm: 1024 stereo samples, 4096 bytes
 * if (bytes > 0) {
 *     send(packet, bytes);
 * }
 * AACEncoder.close(encoder);
 * }</pre>
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class AACEncoder {
    static {
        NativeLibrary.load();
    }

    private AACEncoder() {
    }

    /**
     * Makes an encoder.
     *
     * @param channels 1 or 2; less counts as 1, more as 2
     * @param sampleRate the sampling rate of the PCM in Hz, one of AAC's (96000, 88200, 64000, 48000, 44100, 32000,
     *        24000, 22050, 16000, 12000, 11025, 8000, 7350)
     * @return the handle; 0 when FFmpeg has no AAC encoder; -1 when there is no memory. An encoder that FFmpeg fails to
     *         set up, because of its sampling rate for instance, has a handle too: its {@code encode} always returns 0
     */
    public static native long open(int channels, int sampleRate);

    /**
     * Makes an encoder of another bit rate.
     *
     * @param channels as for {@code open}
     * @param sampleRate as for {@code open}
     * @param bitrate bits per second: 8000 to 6 times the sampling rate for each channel, the largest that a frame holds
     * @return as {@code open}; 0 also for any other bit rate
     */
    public static native long openAt(int channels, int sampleRate, int bitrate);

    /**
     * Encodes one block of 1024 samples per channel.
     *
     * @param pcm {@code channels * 2048} bytes of PCM; the excess of a longer array is ignored
     * @param info 6 bytes or more; after a result above 0 it holds 1, then the result (4 bytes), then 0
     * @param output receives the access unit; {@code channels * 2048} bytes always suffice
     * @param handle the encoder, or 0
     * @return the bytes of the access unit written to {@code output}; 0 when the block yielded none, when {@code pcm}
     *         is shorter than a block (it is dropped) or for a null array; -1 for a handle of 0
     * @throws ArrayIndexOutOfBoundsException if {@code output} is shorter than the access unit, which is then lost, or
     *         {@code info} shorter than 6 bytes
     */
    public static native int encode(byte[] pcm, byte[] info, byte[] output, long handle);

    /**
     * Frees the encoder. The handle is dead afterwards.
     *
     * @param handle the encoder, or 0 for no effect
     */
    public static native void close(long handle);
}
