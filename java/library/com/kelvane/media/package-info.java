/**
 * Audio and video codecs for media servers: H.264, AAC, MP3 and Opus in native code, on the caller's thread, with
 * nothing shared between one engine and another.
 *
 * <table class="striped">
 * <caption>The engines</caption>
 * <thead>
 * <tr><th scope="col">Class<th scope="col">What it does
 * </thead>
 * <tbody>
 * <tr><th scope="row">{@link com.kelvane.media.Transcoder}<td>decodes one H.264 stream once and encodes every picture into
 *     several {@linkplain com.kelvane.media.Rendition renditions}, whose {@linkplain com.kelvane.media.ParameterSets
 *     parameter sets} containers and signalling begin with
 * <tr><th scope="row">{@link com.kelvane.media.VideoDecoder}, {@link com.kelvane.media.VideoEncoder}<td>H.264 to
 *     {@linkplain com.kelvane.media.Picture pictures} and back
 * <tr><th scope="row">{@link com.kelvane.media.Pipeline}<td>has a {@linkplain com.kelvane.media.ProcessingModule module}
 *     work on the pictures of an H.264 stream
 * <tr><th scope="row">{@link com.kelvane.media.AacDecoder}, {@link com.kelvane.media.AacEncoder}<td>AAC-LC to
 *     {@linkplain com.kelvane.media.Pcm sound} and back; {@link com.kelvane.media.AudioConfiguration} is what containers tell
 *     of it
 * <tr><th scope="row">{@link com.kelvane.media.Mp3Decoder}<td>MP3 to sound
 * <tr><th scope="row">{@link com.kelvane.media.OpusDecoder}, {@link com.kelvane.media.OpusEncoder}<td>Opus to sound and back
 * <tr><th scope="row">{@link com.kelvane.media.Resampler}<td>sound of another rate and other channels
 * <tr><th scope="row">{@link com.kelvane.media.ContainerWriter}<td>access units into MP4, fragments for HLS and DASH, MPEG-TS,
 *     FLV, Matroska and more
 * </tbody>
 * </table>
 *
 * <p>{@link com.kelvane.media.Tarnwick} is none of them, and nothing here needs it: raw FFmpeg memory, frames and scaling for
 * programs that drive FFmpeg with addresses of their own. It checks no address, and stands in this package because such
 * programs look for it here.
 *
 * <p>A program that makes two renditions of a raw H.264 stream:
 * <pre>{@code
 * import com.kelvane.media.AccessUnit;
 * import com.kelvane.media.EncodedPicture;
 * import com.kelvane.media.Rendition;
 * import com.kelvane.media.Transcoder;
 * import java.io.IOException;
 * import java.io.OutputStream;
 * import java.nio.channels.Channels;
 * import java.nio.channels.WritableByteChannel;
 * import java.nio.file.Files;
 * import java.nio.file.Path;
 * import java.util.function.Consumer;
 *
 * public class Ladder {
 *     public static void main(String[] arguments) throws IOException {
 *         byte[] stream = Files.readAllBytes(Path.of(arguments[0]));
 *         try (OutputStream large = Files.newOutputStream(Path.of("large.h264"));
 *                 OutputStream small = Files.newOutputStream(Path.of("small.h264"));
 *                 Transcoder ladder = Transcoder.builder()
 *                         .rendition(Rendition.of(320, 180).bitrate(400_000).frameRate(25).keyInterval(50))
 *                         .rendition(Rendition.of(160, 90).bitrate(100_000).frameRate(25).keyInterval(50))
 *                         .open()) {
 *             WritableByteChannel[] files = {Channels.newChannel(large), Channels.newChannel(small)};
 *             Consumer<EncodedPicture> save = picture -> {
 *                 try {
 *                     files[picture.index()].write(picture.data());
 *                 } catch (IOException full) {
 *                     throw new java.io.UncheckedIOException(full);
 *                 }
 *             };
 *             long time = 0;
 *             for (byte[] unit : AccessUnit.split(stream)) {
 *                 ladder.write(unit, time, save);
 *                 time += 40;
 *             }
 *             ladder.drain(save);
 *             System.out.println(ladder.statistics().pictures() + " pictures");
 *         }
 *     }
 * }
 * }</pre>
 *
 * <h2>Engines and their ends</h2>
 *
 * <p>An engine is native memory, from its {@code open} to its {@code close}; try-with-resources is the way to hold one.
 * {@code close} may be called any number of times. An engine that nobody closed is freed when the garbage collector finds
 * its object unreachable, late and with a warning through {@link java.lang.System.Logger} under the name
 * {@code com.kelvane.media}; {@code -Dkelvane.leak.trace=true} has it say where each one was opened.
 *
 * <h2>Threads</h2>
 *
 * <p>One engine is used by one thread at a time, not always by the same one; different engines are independent. Use after
 * {@code close}, use by two threads at once and use from an engine's own callback throw an
 * {@link java.lang.IllegalStateException} that says which of these it was, and change nothing. {@code close} may come from
 * another thread at any time: the call under way ends as it would have, and then frees the engine.
 *
 * <h2>Errors</h2>
 *
 * <p>A wrong argument is an {@link java.lang.IllegalArgumentException} or a {@link java.lang.NullPointerException}; what is
 * missing or refused when an engine opens is a {@link com.kelvane.media.MediaException}. Compressed input may be anything:
 * what cannot be decoded gives an empty result and is never thrown.
 *
 * <h2>Native library</h2>
 *
 * <p>The first engine loads it; {@link com.kelvane.media.NativeLibrary} tells from where. What it tells of itself, and what FFmpeg
 * and OpenH264 say, goes nowhere unless {@link com.kelvane.media.NativeLog} sends it somewhere. The H.264 encoder of a transcoder
 * is the OpenH264 library, which is looked for beside it and where the system property {@code kelvane.openh264} says.
 *
 * <h2>Flight Recorder</h2>
 *
 * <p>{@code com.kelvane.media.EngineOpened} and {@code com.kelvane.media.EngineClosed} tell of every engine;
 * {@code com.kelvane.media.PictureFailed} of every picture that an encoder failed at;
 * {@code com.kelvane.media.PictureTranscoded} of every picture of a transcoder that took longer than its threshold (20 ms). All
 * are on in every recording, as they cost nothing without one, and with one two readings of the clock a picture.
 */
package com.kelvane.media;
