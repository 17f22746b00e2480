package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;
import java.nio.ByteBuffer;

/**
 * The processing pipeline: has a module, a shared library loaded at run time, work on an H.264 stream.
 *
 * <p>In decoding mode each access unit is decoded, the packed I420 picture is given to the module, and what the module
 * keeps is encoded again as by {@link OpenH264Encoder}; without a module every picture is encoded again. In
 * pass-through mode the module is given the access units themselves and nothing is decoded or encoded.
 *
 * <p>{@code loadLibrary} once for each module in the life of the process; {@code open}; {@code brew} to attach a module
 * by its GUID; any {@code apply} settings; then for each access unit {@code write}, followed by {@code read} when it
 * reported an output; {@code close}:
 * <pre>{@code
 * int guid = AVCProcessor.loadLibrary("/opt/modules/mosaic.so");
 * long pipeline = AVCProcessor.open(30, 2000000, 3, 1, 0, 1);
 * AVCProcessor.brew(guid, pipeline);
 * AVCProcessor.apply(Integer.toUnsignedLong(guid), "region", "200,200,400,300", pipeline);
 * byte[] number = new byte[4];
 * ByteBuffer value = ByteBuffer.wrap(number);
 *
 * value.putInt(0, 0);                                // a dropped picture leaves it untouched
 * AVCProcessor.write(milliseconds, accessUnit, number, pipeline);
 * int size = value.getInt(0);
 * if (size > 0) {
 *     byte[] output = new byte[size];
 *     AVCProcessor.read(number, output, pipeline);
 *     send(output, Integer.toUnsignedLong(value.getInt(0)));
 * }
 *
 * AVCProcessor.close(pipeline);
 * }</pre>
 *
 * <p>At most one output is pending: the next one replaces it if it was not read. A module runs inside this process, on
 * the thread of the call. What it throws is printed on standard error and counts as a result of 0.
 *
 * <p>Handles, threads, arrays and exceptions: see the {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class AVCProcessor {
    static {
        NativeLibrary.load();
    }

    private AVCProcessor() {
    }

    /**
     * Loads a module, for all pipelines and for the life of the process, which holds at most 256. Pipelines may be
     * running meanwhile. Of several modules with the same GUID the first one loaded is used.
     *
     * @param path path of the shared library; a bare file name is searched for as the dynamic loader does
     * @return the module's GUID, all 32 bits of which count, so that it may be negative; 0 when the library cannot be
     *         opened or lacks a module's entry points, when 256 modules are loaded, or for a null path
     */
    public static native int loadLibrary(String path);

    /**
     * Looks for what is wrong with a module before it is loaded: {@code loadLibrary} tells little, and resolves functions
     * only when they are called, where one that is nowhere ends the process. The library is opened and closed again.
     *
     * @param path as for {@code loadLibrary}
     * @return what is missing, in the dynamic loader's words; null when nothing is, and for a null path
     */
    public static native String problem(String path);

    /**
     * Makes a pipeline without a module. The encoder is made at the first picture, with the picture's size, and made
     * anew when the size changes.
     *
     * @param frameRate pictures per second of the encoder, above 0; 0 counts as 15; not used in pass-through mode
     * @param bitRate target of the encoder in bits per second, above 0; not used in pass-through mode
     * @param mode 1 for pass-through mode, any other value for decoding mode; the module is given this and the three
     *        options, the low 8 bits of each, when the encoder is made
     * @param option1 for the module
     * @param option2 for the module
     * @param option3 for the module
     * @return the handle; 0 when there is no memory
     */
    public static native long open(int frameRate, int bitRate, int mode, int option1, int option2, int option3);

    /**
     * Attaches a module in place of the one attached before, which is closed and destroyed. To be called before the
     * first picture: a module attached later is not told the picture size until that changes.
     *
     * @param guid the GUID that {@code loadLibrary} returned
     * @param handle the pipeline, or 0
     * @return 1, also when no such module is loaded: a line on standard output says so, and the pipeline goes on
     *         without a module; 0 for a handle of 0
     */
    public static native int brew(int guid, long handle);

    /**
     * Hands one setting to the attached module.
     *
     * @param guid the attached module's GUID as an unsigned number, 0 to 4294967295
     *        ({@link Integer#toUnsignedLong Integer.toUnsignedLong(guid)})
     * @param key for the module
     * @param value for the module
     * @param handle the pipeline, or 0
     * @return what the module answers, by convention 1 when it took the setting and 0 when it refused it; -1 when no
     *         module or one with another GUID is attached, for a handle of 0 or for a null string
     */
    public static native int apply(long guid, String key, String value, long handle);

    /**
     * Processes one access unit. An output becomes pending for {@code read}, in place of one that was not read.
     *
     * @param timestamp time of the access unit in milliseconds, unsigned; its low 32 bits are used
     * @param data one access unit; in decoding mode it begins with 00 00 00 01
     * @param sizeInfo 4 bytes or more; receives the bytes of the new output, or 0 when a picture was decoded but
     *        yielded none. Left unchanged when no picture was decoded and when the module dropped it, so the caller
     *        clears it before each call
     * @param handle the pipeline, or 0
     * @return in decoding mode 1 when the picture was encoded or dropped by the module; 0 when no picture was decoded,
     *         or one was that yielded no access unit; -1 when {@code data} is shorter than 4 bytes or does not begin
     *         with 00 00 00 01. In pass-through mode 1. In both, 0 for a handle of 0 or a null array
     * @throws ArrayIndexOutOfBoundsException if {@code sizeInfo} is shorter than 4 bytes; the output is pending all the
     *         same
     */
    public static native int write(long timestamp, byte[] data, byte[] sizeInfo, long handle);

    /**
     * Processes one access unit that is part of an array or of a direct buffer, as {@link #write} does. It is copied before
     * anything looks at it.
     *
     * @param timestamp as for {@code write}
     * @param data holds the access unit, or null when {@code direct} does
     * @param direct a direct buffer that holds it; its position and limit have no part in this
     * @param from where it begins
     * @param size its bytes
     * @param sizeInfo as for {@code write}
     * @param handle the pipeline, or 0
     * @return as {@code write}; 0 also when there is no such part
     * @throws ArrayIndexOutOfBoundsException as {@code write}
     */
    public static native int writePart(long timestamp, byte[] data, ByteBuffer direct, int from, int size, byte[] sizeInfo,
                                       long handle);

    /**
     * Takes the pending output, if there is one; otherwise nothing is written.
     *
     * @param timestampInfo 4 bytes or more; receives the output's timestamp as the module left it
     * @param data receives the output; as long as {@code write} said, or longer
     * @param handle the pipeline, or 0
     * @return 0 in every case; a null array leaves the output pending
     * @throws ArrayIndexOutOfBoundsException if an array is too short; the output is no longer pending
     */
    public static native int read(byte[] timestampInfo, byte[] data, long handle);

    /**
     * Processes the next picture that is held back for reordering, as {@code write} does; to be called at the end of a
     * stream until it returns 0. The pipeline is then ready for a new stream, which begins with a key frame. The module
     * is given the picture's own time.
     *
     * @param sizeInfo as for {@code write}
     * @param handle the pipeline, or 0
     * @return 1 when there was a picture and it was encoded or dropped by the module; 0 when nothing is held back any
     *         more, {@code sizeInfo} then being unchanged, when a picture yielded no access unit, {@code sizeInfo} then
     *         holding 0, in pass-through mode, for a handle of 0 and for a null array
     * @throws ArrayIndexOutOfBoundsException if {@code sizeInfo} is shorter than 4 bytes; the output is pending all the
     *         same
     */
    public static native int drain(byte[] sizeInfo, long handle);

    /**
     * The time of the picture that the last {@code write} or {@code drain} decoded: the low 32 bits of what was given
     * with the access unit that carried it.
     *
     * @param handle the pipeline, or 0
     * @return milliseconds, 0 to 4294967295; 0 before the first picture, in pass-through mode and for a handle of 0
     */
    public static native long pictureTime(long handle);

    /**
     * Whether a module works in the pipeline.
     *
     * @param handle the pipeline, or 0
     * @return 1 when one is attached; 0 when none is, because {@code brew} found none with its GUID or the module made
     *         no object, and for a handle of 0
     */
    public static native int attached(long handle);

    /**
     * Why the picture of the last {@code write}, {@code drain} or {@link #retry} yielded no access unit: the encoder skipped
     * it, or failed. After a failure OpenH264 encodes nothing more until {@link #renew}.
     *
     * @param handle the pipeline, or 0
     * @return as {@link OpenH264Encoder#failure}; 0 also when no picture was decoded or the module dropped it
     */
    public static native int failure(long handle);

    /**
     * Makes the next picture that is encoded a key frame.
     *
     * @param handle the pipeline, or 0
     * @return 1 when it will be; 0 in pass-through mode and for a handle of 0
     */
    public static native int requestKey(long handle);

    /**
     * Sets another target, as {@link OpenH264Encoder#setBitrate} does; before the first picture, that of the encoder to
     * come.
     *
     * @param bitsPerSecond above 0
     * @param handle the pipeline, or 0
     * @return 1 when it holds from the next picture on; 0 when FFmpeg opened no such encoder, the one there was going on, in
     *         pass-through mode and for a handle of 0
     */
    public static native int setBitrate(int bitsPerSecond, long handle);

    /**
     * Makes the encoder anew, with the same settings. The picture that it encodes next is a key frame. From then on it has
     * no lines on the standard output for pictures that fail.
     *
     * @param handle the pipeline, or 0
     * @return as {@link OpenH264Encoder#renew}; 0 also before the first picture
     */
    public static native int renew(long handle);

    /**
     * Encodes the picture that failed in the last {@code write} or {@code drain} once more, as the module left it and
     * without the module; to be called after {@link #renew}.
     *
     * @param sizeInfo as for {@code write}; unchanged when no picture had failed
     * @param handle the pipeline, or 0
     * @return 1 when an access unit is pending for {@code read}; otherwise 0
     * @throws ArrayIndexOutOfBoundsException if {@code sizeInfo} is shorter than 4 bytes; the output is pending all the
     *         same
     */
    public static native int retry(byte[] sizeInfo, long handle);

    /**
     * Frees the pipeline, destroys its module object and drops a pending output. The handle is dead afterwards; loaded
     * modules stay loaded.
     *
     * @param handle the pipeline, or 0
     * @return true when a pipeline was freed; false for a handle of 0
     */
    public static native boolean close(long handle);
}
