/**
 * The native methods under {@link com.kelvane.media}, for whoever wants them as they are: handles that nothing checks,
 * arrays that the caller sizes, results that are numbers. Each class stands for one kind of engine: its {@code open} makes
 * an engine and returns a handle, the handle is the last argument of every later call, and {@code close} ends the engine.
 * Loading any of the classes loads the native library ({@link com.kelvane.media.NativeLibrary}). What follows holds for all
 * of them; the classes and methods say only what they add to it.
 *
 * <p>A program that counts the pictures of a raw H.264 stream:
 * <pre>{@code
 * import com.kelvane.media.AccessUnit;
 * import com.kelvane.media.transform.codec.AVCDecoder;
 * import java.io.IOException;
 * import java.nio.file.Files;
 * import java.nio.file.Path;
 *
 * public class Count {
 *     public static void main(String[] arguments) throws IOException {
 *         byte[] info = new byte[6];
 *         byte[] picture = new byte[0];
 *         int pictures = 0;
 *         long decoder = AVCDecoder.open();
 *         for (byte[] unit : AccessUnit.split(Files.readAllBytes(Path.of(arguments[0])))) {
 *             int result = AVCDecoder.decode(unit, info, picture, decoder);
 *             if (result < -1) {                         // another size than the array's
 *                 picture = new byte[-result];
 *                 result = AVCDecoder.take(info, picture, decoder);
 *             }
 *             pictures += result == 1 ? 1 : 0;
 *         }
 *         while (AVCDecoder.drain(info, picture, decoder) == 1) {
 *             pictures++;
 *         }
 *         AVCDecoder.close(decoder);
 *         System.out.println(pictures + " pictures");
 *     }
 * }
 * }</pre>
 *
 * <h2>Handles</h2>
 *
 * <p>A handle is the address of a native engine and always above 0; an {@code open} that fails returns 0 or -1, as it
 * says. An engine is native memory: the garbage collector never frees it, and each handle needs one {@code close}.
 * <strong>A handle is not checked.</strong> Use after {@code close}, a second {@code close}, a handle of another class
 * or a result of -1 passed on as a handle corrupts the process or crashes the virtual machine. Only 0 is safe
 * everywhere: the call does nothing and returns what the method lists for it.
 *
 * <h2>Threads</h2>
 *
 * <p>Different engines may be used from different threads at once. One engine is used by one thread at a time, and its
 * {@code close} must not overlap another call on it; the caller sees to both. Every call, with all its callbacks, runs
 * on the calling thread and is over when it returns.
 *
 * <h2>Arrays, results and exceptions</h2>
 *
 * <p>Arrays are copied in and out during the call; none is kept. A result is written from index 0, and what lies behind
 * it in the array stays as it was. A call that produces nothing writes nothing, unless the method says otherwise. A
 * null array or string is safe: the call does nothing and returns what the method lists for it.
 *
 * <p>A result of <i>-n</i>, where a method lists it, means that the output array does not have the length the result
 * needs. The result of that call is dropped; an array of <i>n</i> bytes serves the following calls.
 *
 * <p>No codec failure is thrown. Arrays whose length is not compared first, the info arrays among them, raise
 * {@link java.lang.ArrayIndexOutOfBoundsException} when they are too short for what is written to them. The native call
 * has then run to its end, the engine stays usable, and the method's result is lost.
 *
 * <h2>Data</h2>
 *
 * <dl>
 * <dt>Packed I420 picture
 * <dd>{@code width * height * 12 / 8} bytes (integer division): {@code height} rows of {@code width} bytes of Y, then
 *     {@code height / 2} rows of {@code width / 2} bytes of U, then as many of V; 8 bits a sample, no padding between
 *     rows or planes. Where a width or height is odd, the planes end before the array does.
 * <dt>Access unit
 * <dd>The H.264 NAL units of one picture in Annex-B form, each behind a start code; the whole begins with the four
 *     bytes 00 00 00 01. Parameter sets (SPS, PPS) travel in it, ahead of the first slice that needs them.
 * <dt>PCM
 * <dd>Signed 16-bit samples, low byte first, interleaved left, right for stereo. Counts of samples are per channel.
 * <dt>Info array
 * <dd>A few bytes about a result, laid out as the method says; numbers of more than one byte have the most significant
 *     byte first, the default of {@link java.nio.ByteBuffer}.
 * <dt>Timestamp
 * <dd>An unsigned 32-bit count of milliseconds; of a {@code long} argument only the low 32 bits are used.
 * </dl>
 *
 * <h2>OpenH264</h2>
 *
 * <p>{@link com.kelvane.media.transform.codec.AVCEncoder} and {@link com.kelvane.media.transform.codec.MIRVProcessor}
 * open the OpenH264 library at {@code lib/amd64-Linux-gpp/jni/libopenh264-1.8.0-linux64.4.so}, relative to the working
 * directory of the process, not to the jar. An installed tree has it there: start the server in the folder that
 * contains {@code lib}. While it is missing, their {@code open} still returns a handle, a line on standard output says
 * {@code could not load pointers}, and the encoders yield nothing; the next encoder to be opened tries again. Versions
 * 1.8 to 2.6 of the library will do; another one is not loaded, with a line on standard error that names it.
 *
 * <h2>Diagnostics</h2>
 *
 * <p>While no {@link com.kelvane.media.NativeLog} was chosen, and none is until a class of {@code com.kelvane.media} opens an
 * engine, engines report events as plain lines on standard output, failures of FFmpeg's codec look-up and of libopus on
 * standard error. {@link com.kelvane.media.transform.codec.AVCDecoder#open} and
 * {@link com.kelvane.media.transform.codec.OpenH264Encoder#open} silence FFmpeg's own log for the whole process.
 */
package com.kelvane.media.transform.codec;
