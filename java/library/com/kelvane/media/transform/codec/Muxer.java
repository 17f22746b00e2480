package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;

/**
 * Writes access units into a container, without a file: what it makes is fetched in pieces, each with its place.
 *
 * <p>{@code open}; {@code addPictures} or {@code addSound} for each track, which are numbered from 0; {@code begin};
 * {@code write} with one access unit after the other; {@code finish}; {@code close}. After each call whose result is above
 * 0 there are pieces to take:
 * <pre>{@code
 * byte[] info = new byte[17];
 * for (int kind = Muxer.next(info, muxer); kind != Muxer.NOTHING; kind = Muxer.next(info, muxer)) {
 *     ByteBuffer piece = ByteBuffer.wrap(info, 1, 16);
 *     long place = piece.getLong();
 *     byte[] bytes = new byte[(int) piece.getLong()];
 *     Muxer.take(bytes, 0, muxer);
 *     write(place, bytes);
 * }
 * }</pre>
 *
 * <p>A result below 0 is one of the refusals listed here, after which nothing has changed, or an error of FFmpeg, which
 * {@link #describe} puts into words and which every later call gives again. Nothing is printed. Times are in ticks of the track: for
 * pictures what {@code addPictures} was told, for sound one sample.
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class Muxer {
    /** Codec: H.264 in byte-stream form. */
    public static final int H264 = 0;
    /** Codec: AAC without ADTS headers. */
    public static final int AAC = 1;
    /** Codec: MP3, a frame with its header. */
    public static final int MP3 = 2;
    /** Codec: Opus packets. */
    public static final int OPUS = 3;
    /** Codec: signed 16-bit samples, low byte first. */
    public static final int PCM = 4;

    /** Option of {@code open}: MP4 in fragments, which {@code cut} ends. */
    public static final int FRAGMENTED = 1;
    /** Option of {@code open}: pieces may have any place; without it each follows the one before. */
    public static final int SEEKABLE = 2;
    /** Option of {@code open}, with {@link #SEEKABLE}: MP4 with its index in front, for which {@code finish} has a piece that moves. */
    public static final int FAST_START = 4;

    /** Refusal: a wrong argument, a wrong track, or a call out of order. */
    public static final int WRONG_CALL = -2001;
    /** Refusal: a unit without bytes, with more than the container can hold, or H.264 that does not begin with a start code. */
    public static final int WRONG_UNIT = -2002;
    /** Refusal: a decoding time that is not above the one before, or the same in the container's ticks. */
    public static final int NOT_RISING = -2003;
    /** Refusal: a presentation time before the decoding time. */
    public static final int SHOWN_BEFORE_DECODED = -2004;
    /** Refusal: a time beyond 2^32 seconds, or a duration or distance beyond 2^31 ticks. */
    public static final int OUT_OF_RANGE = -2005;
    /** Refusal: a time before the earliest that the container can tell. */
    public static final int TOO_EARLY = -2006;
    /** Refusal: the fragment would hold more than 64 MB. */
    public static final int FRAGMENT_FULL = -2007;
    /** Refusal, which is no fault: the unit lies before the beginning and is left out. */
    public static final int LEFT_OUT = -2008;

    /** A kind of piece: there is none. */
    public static final int NOTHING = 0;
    /** A kind of piece: bytes for a place. */
    public static final int BYTES = 1;
    /** A kind of piece: all that lies at a place and behind it is to be moved back by so many bytes. */
    public static final int MOVE = 2;

    /** As {@code next} of {@code cut}: not known. */
    public static final long UNKNOWN = Long.MIN_VALUE;

    static {
        NativeLibrary.load();
    }

    private Muxer() {
    }

    /**
     * Makes a muxer.
     *
     * @param format {@code mp4}, {@code mov}, {@code mpegts}, {@code flv}, {@code matroska}, {@code ogg}, {@code adts} or
     *        {@code wav}
     * @param options a sum of {@link #FRAGMENTED}, {@link #SEEKABLE} and {@link #FAST_START}
     * @return the handle; 0 for another format, a null one, options that it does not have, or when there is no memory
     */
    public static native long open(String format, int options);

    /**
     * Adds a track of H.264 pictures.
     *
     * @param width in pixels
     * @param height in pixels
     * @param ticksPerSecond what times are counted in, 1 to 1000000
     * @param parameterSets SPS and PPS in byte-stream form
     * @param shape 9 bytes or more, most significant first: width and height of a pixel (2 bytes each, 0 when not told),
     *        quarter turns clockwise, range (0 not told, 1 limited, 2 full), primaries, transfer and matrix (by H.264's
     *        numbers)
     * @param handle the muxer, or 0
     * @return its number, from 0, or a refusal
     */
    public static native int addPictures(int width, int height, int ticksPerSecond, byte[] parameterSets, byte[] shape,
                                         long handle);

    /**
     * Adds a track of sound.
     *
     * @param codec {@link #AAC}, {@link #MP3}, {@link #OPUS} or {@link #PCM}
     * @param sampleRate in Hz; what times are counted in
     * @param channels 1 to 8
     * @param priming samples at the beginning that are not sound
     * @param configuration an AudioSpecificConfig for AAC, otherwise empty
     * @param handle the muxer, or 0
     * @return its number, from 0, or a refusal
     */
    public static native int addSound(int codec, int sampleRate, int channels, int priming, byte[] configuration, long handle);

    /**
     * Labels a track.
     *
     * @param track its number
     * @param language three letters of ISO 639-2, or null
     * @param name for people to read, or null
     * @param handle the muxer, or 0
     * @return 0 or a refusal
     */
    public static native int label(int track, String language, String name, long handle);

    /**
     * Ends the adding of tracks and writes the beginning of the container.
     *
     * @param firstFragment the number of the first fragment, 1 or more
     * @param handle the muxer, or 0
     * @return the bytes that are to be taken, a refusal or an error
     */
    public static native int begin(int firstFragment, long handle);

    /**
     * Writes an access unit.
     *
     * @param track its number
     * @param unit holds it
     * @param from index of its first byte
     * @param size its bytes
     * @param presentationTime when it is shown or heard
     * @param decodingTime when it is decoded; rises in each track
     * @param duration 0 for the time until the next one
     * @param key whether decoding can begin here
     * @param handle the muxer, or 0
     * @return the bytes that are to be taken, a refusal or an error
     */
    public static native int write(int track, byte[] unit, int from, int size, long presentationTime, long decodingTime,
                                   long duration, boolean key, long handle);

    /**
     * Ends a fragment, or has a container that is no fragmented one hand out what it holds back.
     *
     * @param next decoding time of the next unit of track 0, which tells how long its last one lasts, or {@link #UNKNOWN}
     * @param handle the muxer, or 0
     * @return the bytes that are to be taken, 0 when nothing was written since the last one, a refusal or an error
     */
    public static native int cut(long next, long handle);

    /**
     * Tells what the last {@code cut} has put into the fragment from one track.
     *
     * @param track its number
     * @param info 29 bytes or more: decoding time of the first unit in the fragment, presentation time of the unit that is
     *        shown first, duration (8 bytes each), number of units (4 bytes), 1 when it begins with a key unit; most
     *        significant bytes first
     * @param handle the muxer, or 0
     * @return the number of units, or a refusal
     */
    public static native int run(int track, byte[] info, long handle);

    /**
     * Writes the end of the container. After it nothing can be written.
     *
     * @param handle the muxer, or 0
     * @return the bytes that are to be taken, a refusal or an error
     */
    public static native int finish(long handle);

    /**
     * Tells of the piece that is to be taken next.
     *
     * @param info 17 bytes or more: the kind, its place and its number of bytes (8 bytes each)
     * @param handle the muxer, or 0
     * @return its kind
     */
    public static native int next(byte[] info, long handle);

    /**
     * Takes the next piece.
     *
     * @param output receives its bytes; null for a {@link #MOVE}, which has none
     * @param at index of the first one
     * @param handle the muxer, or 0
     * @return its bytes; when {@code output} ends before them, minus their number, and the piece stays
     */
    public static native int take(byte[] output, int at, long handle);

    /**
     * Puts a result below 0 into words.
     *
     * @param result what a method has returned
     * @param text receives them in ASCII
     * @return the bytes written
     */
    public static native int describe(int result, byte[] text);

    /**
     * Frees the muxer and what was not taken. The handle is dead afterwards.
     *
     * @param handle the muxer, or 0 for no effect
     */
    public static native void close(long handle);
}
