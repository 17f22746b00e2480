package com.kelvane.media.transform.codec;

import com.kelvane.media.NativeLibrary;
import java.nio.ByteBuffer;

/**
 * The multi-rendition transcoder: decodes one H.264 stream once and encodes every picture again into a fixed number of
 * renditions, each with its own size, frame rate, bit rate and encoder settings.
 *
 * <p>{@code open} fixes the number of renditions, {@code apply} configures them one setting at a time, {@code start}
 * opens their encoders, {@code write} takes one access unit after the other, {@code close} ends everything. Results are
 * delivered during {@code write} to a listener, any object with the instance method
 * <pre>{@code
 * void receiveVideo(int index, int timestamp, java.nio.ByteBuffer data)
 * }</pre>
 *
 * <p>A transcoder with two renditions:
 * <pre>{@code
 * class Renditions {
 *     void receiveVideo(int index, int timestamp, ByteBuffer data) {
 *         if (data != null) {
 *             byte[] accessUnit = new byte[data.remaining()];
 *             data.get(accessUnit);                  // the buffer dies with this callback
 *             send(index, Integer.toUnsignedLong(timestamp), accessUnit);
 *         }
 *     }
 * }
 *
 * long transcoder = MIRVProcessor.open(2);
 * MIRVProcessor.apply(1, "videoWidth", "1280", transcoder);
 * MIRVProcessor.apply(1, "videoHeight", "720", transcoder);
 * MIRVProcessor.apply(1, "videoBR", "2500000", transcoder);
 * MIRVProcessor.apply(1, "videoFPS", "30", transcoder);
 * MIRVProcessor.apply(2, "videoWidth", "640", transcoder);
 * MIRVProcessor.apply(2, "videoHeight", "360", transcoder);
 * MIRVProcessor.apply(2, "videoBR", "800000", transcoder);
 * MIRVProcessor.apply(2, "videoFPS", "30", transcoder);
 * MIRVProcessor.start(transcoder);
 * Renditions renditions = new Renditions();
 * MIRVProcessor.write(renditions, milliseconds, accessUnit, transcoder);      // for every access unit
 * MIRVProcessor.close(transcoder);
 * }</pre>
 *
 * <h2>The callback</h2>
 *
 * <p>Every {@code write} that gets as far as decoding calls {@code receiveVideo} once for each rendition, on the
 * calling thread, in the order in which the renditions were first configured:
 * <ul>
 * <li>{@code index}: the rendition's id, 0 for one that was never configured;
 * <li>{@code timestamp}: the low 32 bits of the timestamp given to this {@code write}. In a stream that reorders
 *     pictures, the picture in {@code data} may belong to an earlier one;
 * <li>{@code data}: a direct buffer from 0 to its capacity over the rendition's access unit; null when there is none,
 *     because no picture was decoded, the encoder skipped it or the rendition failed.
 * </ul>
 *
 * <p><strong>The buffer does not own its memory.</strong> The encoder releases it at the rendition's next picture and
 * at {@code close}; reading the buffer after that may crash the virtual machine. A listener copies what it keeps before
 * it returns, and hands the buffer to nobody. It must not call this class with the handle it is being called for.
 *
 * <p>The method is looked up by its name and signature, whatever its visibility, on the class of the first listener,
 * and kept: every later listener of the same handle must be an instance of that class. Without such a method no
 * callback is made, and the look-up is repeated. An exception thrown by the listener does not stop the call: the
 * remaining renditions are still delivered, and the first exception is thrown by {@code write} when it is done.
 *
 * <h2>Settings</h2>
 *
 * <table class="striped">
 * <caption>Keys of {@code apply}, case-sensitive; every setting begins as 0</caption>
 * <thead>
 * <tr><th scope="col">Key<th scope="col">Unit<th scope="col">Values
 * </thead>
 * <tbody>
 * <tr><th scope="row">{@code videoWidth}<td>pixels<td>even, 16 or more; when it or the height is 0, the rendition takes
 *     both from its first picture
 * <tr><th scope="row">{@code videoHeight}<td>pixels<td>as the width
 * <tr><th scope="row">{@code videoBR}<td>bits per second<td>above 0; target and maximum
 * <tr><th scope="row">{@code videoFPS}<td>pictures per second<td>1 to 60, any other value counts as 30; guides rate
 *     control and the default key-frame period, no picture is dropped or repeated
 * <tr><th scope="row">{@code videoKey}<td>pictures<td>key-frame period, 1 to 480; 0 counts as 4, any other value as 8
 *     seconds of pictures
 * <tr><th scope="row">{@code videoEncMode}<td>none<td>rate control: 0 by bit rate, any other value by quality
 * <tr><th scope="row">{@code videoBRMax}<td>bits per second<td>kept, without effect
 * <tr><th scope="row">{@code videoQPMax}<td>quantiser<td>largest, 1 to 51; 0 for the encoder's default
 * <tr><th scope="row">{@code videoQPMin}<td>quantiser<td>smallest, 1 to 51; 0 for the encoder's default
 * <tr><th scope="row">{@code videoEncProfile}<td>none<td>entropy coding: 0 CAVLC, 1 CABAC
 * <tr><th scope="row">{@code debug}<td>none<td>any value but 0 turns on the encoder's diagnostic lines
 * </tbody>
 * </table>
 *
 * <p>Settings reach a rendition until its encoder is opened: by {@code start} when it has a width and a height,
 * otherwise at its next picture. A rendition whose encoder refuses its settings stays open and delivers null.
 *
 * <p>Handles, threads and where the OpenH264 library must lie: see the
 * {@linkplain com.kelvane.media.transform.codec package}.
 */
public final class MIRVProcessor {
    static {
        NativeLibrary.load();
    }

    private MIRVProcessor() {
    }

    /**
     * Makes a transcoder with its decoder and its renditions, all still without settings. A rendition that is never
     * configured takes part all the same, at the size of the input.
     *
     * @param outputs number of renditions, 0 to 65536
     * @return the handle; 0 for any other number or when there is no memory
     */
    public static native long open(int outputs);

    /**
     * Gives one setting of one rendition. The first use of an id claims the next free rendition for it, whatever the
     * key; an id for which none is left is refused with a line on standard output.
     *
     * @param index the rendition's id, any number but 0; it comes back in {@code receiveVideo}
     * @param key a key of the table above; any other changes no setting
     * @param value a decimal integer as text; text that is not a number gives 0
     * @param handle the transcoder, or 0
     * @return 0 in every case, a handle of 0 and a null string among them
     */
    public static native int apply(int index, String key, String value, long handle);

    /**
     * Opens the encoder of every rendition that has a width and a height. To be called once, after the settings;
     * without it, encoders open at the first picture.
     *
     * @param handle the transcoder, or 0
     * @return 1 in every case
     */
    public static native int start(long handle);

    /**
     * Decodes one access unit, encodes the picture that comes out into every rendition and calls the listener once for
     * each.
     *
     * @param listener receives the access units, see above; null decodes without any callback
     * @param timestamp time of the access unit in milliseconds, unsigned; its low 32 bits are used
     * @param data one access unit, beginning with 00 00 00 01
     * @param handle the transcoder, or 0
     * @return 1 when a picture was decoded; 0 when there was none, the callbacks then carrying null; -1 when
     *         {@code data} is shorter than 4 bytes or does not begin with 00 00 00 01, the callbacks then carrying
     *         null; 0 without any callback for a null or empty {@code data}, for a handle of 0 or when there is no
     *         memory
     */
    public static native int write(Object listener, long timestamp, byte[] data, long handle);

    /**
     * Decodes one access unit and encodes nothing: the first half of {@link #write}. {@link #encode} is the second, for
     * one rendition after the other or for several at once.
     *
     * @param timestamp as for {@code write}
     * @param data as for {@code write}
     * @param handle the transcoder, or 0
     * @return 1 when a picture was decoded, which then is at hand until the next {@code decode}, {@code write} or
     *         {@code drain}; otherwise as {@code write}
     */
    public static native int decode(long timestamp, byte[] data, long handle);

    /**
     * Decodes one access unit that is part of an array or of a direct buffer, as {@link #decode} does. It is copied before
     * anything looks at it.
     *
     * @param timestamp as for {@code write}
     * @param data holds the access unit, or null when {@code direct} does
     * @param direct a direct buffer that holds it; its position and limit have no part in this
     * @param from where it begins
     * @param size its bytes
     * @param handle the transcoder, or 0
     * @return as {@code decode}; 0 also when there is no such part
     */
    public static native int decodePart(long timestamp, byte[] data, ByteBuffer direct, int from, int size, long handle);

    /**
     * Scales and encodes the picture at hand for one rendition and calls the listener once, with null when there is no
     * picture at hand or it yielded no access unit. Different renditions may be encoded on different threads at the same
     * time, between one {@code decode} and the next call of any other method.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param listener receives the access unit with the timestamp of the last {@code decode}, or of the picture itself
     *        when that came from {@code drain}; null encodes nothing
     * @param handle the transcoder, or 0
     * @return 1 when the rendition has an access unit for this picture; 0 when it has none, for a position that there is
     *         not, for a null listener and for a handle of 0
     */
    public static native int encode(int output, Object listener, long handle);

    /**
     * Scales and encodes the picture at hand for one rendition, as {@link #encode} does, and copies the access unit into an
     * array in place of a callback, which takes the virtual machine longer.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param data receives the access unit from its begin; when it is too short it stays as it is, and
     *        {@link #copyEncoded} gives the access unit once there is a longer one. Null encodes nothing
     * @param handle the transcoder, or 0
     * @return bytes of the access unit, also when {@code data} is too short; 0 when the rendition has none for this picture,
     *         for a position that there is not, for a null array and for a handle of 0
     */
    public static native int encodeInto(int output, byte[] data, long handle);

    /**
     * Makes places for decoded pictures, so that decoding can go on while earlier pictures are encoded; those that there were
     * are freed with their pictures. To be called while no other thread encodes.
     *
     * @param places 0 to 1024; each takes the memory of a picture once {@link #keep} has used it, 3 MB at 1920x1080
     * @param handle the transcoder, or 0
     * @return 1; 0 for any other number, when there is no memory and for a handle of 0
     */
    public static native int makePlaces(int places, long handle);

    /**
     * Copies the picture at hand to a place, over the one that lies there; no thread must encode that at the time.
     *
     * @param place from 0
     * @param handle the transcoder, or 0
     * @return 1 when it lies there; 0 when no picture is at hand, for a place that there is not, when there is no memory and
     *         for a handle of 0
     */
    public static native int keep(int place, long handle);

    /**
     * Encodes a picture that was kept, as {@link #encodeInto} does the one at hand, with the same bytes. The renditions may do
     * so on a thread each, while another one decodes and keeps pictures in other places; a rendition takes pictures in the order
     * in which they were decoded.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param place where the picture lies
     * @param data as for {@code encodeInto}
     * @param handle the transcoder, or 0
     * @return as {@code encodeInto}; 0 also for a place where no picture lies
     */
    public static native int encodeKept(int output, int place, byte[] data, long handle);

    /**
     * Copies the access unit of the picture that {@link #encodeInto} or {@link #encodeKept} has just encoded
     * once more. To be called while no other
     * thread encodes this rendition.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param data receives it from its begin; when it is too short it stays as it is
     * @param handle the transcoder, or 0
     * @return as {@link #encodeInto}
     */
    public static native int copyEncoded(int output, byte[] data, long handle);

    /**
     * Decodes the next picture that is held back for reordering, encodes it into every rendition and calls the listener
     * once for each, as {@code write} does, with the picture's own time; to be called at the end of a stream until it
     * returns 0. The transcoder is then ready for a new stream, which begins with a key frame.
     *
     * @param listener as for {@code write}; null decodes without any callback, and {@link #encode} then has the picture
     * @param handle the transcoder, or 0
     * @return 1 when there was a picture; 0, without a callback, when nothing is held back any more and for a handle of 0
     */
    public static native int drain(Object listener, long handle);

    /**
     * The time of the picture that the last {@code write}, {@code decode} or {@code drain} decoded: the low 32 bits of
     * what was given with the access unit that carried it. In a stream that reorders pictures these times rise, where
     * those of the access units do not.
     *
     * @param handle the transcoder, or 0
     * @return milliseconds, 0 to 4294967295; 0 before the first picture and for a handle of 0
     */
    public static native long pictureTime(long handle);

    /**
     * What is known of the picture that the last {@link #decode} or {@link #drain} left at hand.
     *
     * @param handle the transcoder, or 0
     * @return its width, plus its height shifted by 16 bits, plus a bit at 32 when it is made of two fields and one at 33 when
     *         decoding can begin with it; 0 when no picture is at hand and for a handle of 0
     */
    public static native long pictureInfo(long handle);

    /**
     * What became of the access unit of the last {@link #write} or {@link #decode}; to be called once behind each, as it
     * goes by what it was told before.
     *
     * @param handle the transcoder, or 0
     * @return 0 when a picture came out; 1 when one did in which errors were concealed, or others before it are missing; 2
     *         when its picture is held back; 3 when it has none, behind {@link #drain} and for a handle of 0; 4 when
     *         nothing can be made of it; plus 256 since one of 1 or 4, until a picture comes out that decoding can begin
     *         with
     */
    public static native int outcome(long handle);

    /**
     * What became of a rendition's encoder.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param handle the transcoder, or 0
     * @return 0 when it encodes; 1 when the OpenH264 library made no encoder or is missing; -1 when OpenH264 refused the
     *         settings; 2 when it was not opened yet, for a position that there is not and for a handle of 0
     */
    public static native int status(int output, long handle);

    /**
     * Makes the next picture that a rendition encodes a key frame; the key-frame period is counted from there. To be called
     * while no other thread encodes this rendition.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param handle the transcoder, or 0
     * @return 1 when it will be; 0 when the rendition's encoder is not open, for a position that there is not and for a
     *         handle of 0
     */
    public static native int requestKey(int output, long handle);

    /**
     * Sets another target and maximum for a rendition, from its next picture on: without a new encoder, without a key frame
     * and without a lost picture. To be called while no other thread encodes this rendition. {@link #renew} keeps it.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param bitsPerSecond above 0
     * @param handle the transcoder, or 0
     * @return 1 when the encoder takes it, or is not open yet and will; 0 when OpenH264 refused it, for a position that there
     *         is not and for a handle of 0
     */
    public static native int setBitrate(int output, int bitsPerSecond, long handle);

    /**
     * Sets the rate that bits are shared out for, as {@link #setBitrate} sets the target. A rendition without a key-frame
     * period of its own keeps to one of four seconds.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param picturesPerSecond 1 to 60; less counts as 1, more as 60
     * @param handle the transcoder, or 0
     * @return as {@code setBitrate}
     */
    public static native int setFrameRate(int output, float picturesPerSecond, long handle);

    /**
     * Makes room for one more rendition. Like those of {@link #open} it has no settings at first, and is claimed by the next
     * new id that {@link #apply} is given. To be called while no other thread encodes.
     *
     * @param handle the transcoder, or 0
     * @return its position; -1 when there is no memory, there are 65536 renditions, and for a handle of 0
     */
    public static native int addOutput(long handle);

    /**
     * Opens the encoder of one rendition, as {@link #start} does for all of them; one that was released takes part again.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param handle the transcoder, or 0
     * @return 1; 0 for a position that there is not and for a handle of 0
     */
    public static native int startOutput(int output, long handle);

    /**
     * Frees a rendition's encoder and its memory, and takes back its settings, those of {@link #setBitrate} and
     * {@link #setFrameRate} included; its position and its id stay. It encodes nothing, and callbacks carry null for it,
     * until {@link #startOutput}. To be called while no other thread encodes.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param handle the transcoder, or 0
     * @return 1; 0 for a position that there is not and for a handle of 0
     */
    public static native int releaseOutput(int output, long handle);

    /**
     * How a rendition encoded the picture that it was given last.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param handle the transcoder, or 0
     * @return the type times 256, 1 for an IDR picture, 2 for an I and 3 for a P picture, plus the average quantiser of its
     *         macroblocks, 0 where the encoder does not tell; 0 when the rendition has nothing for that picture, for a
     *         position that there is not and for a handle of 0
     */
    public static native int encodedAs(int output, long handle);

    /**
     * Why a rendition has nothing for the picture that it was given last: its encoder skipped that, or failed. After a
     * failure OpenH264 encodes nothing more until {@link #renew}.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param handle the transcoder, or 0
     * @return 0 when the picture was encoded or skipped, before the first one, for a position that there is not and for a
     *         handle of 0; otherwise what OpenH264 answered, 3 for a picture of more bytes than it has room for and 5 for a
     *         size that it does not encode; -1 when it threw, the picture could not be scaled, or memory or an encoder was
     *         missing
     */
    public static native int failure(int output, long handle);

    /**
     * Makes a rendition's encoder anew, with the same settings. The picture that it encodes next is a key frame;
     * {@link #encode} and {@link #encodeInto} may give it the picture at hand once more. From then on it has no lines on the
     * standard output and error for pictures that fail. To be called while no other thread encodes this rendition.
     *
     * @param output the rendition's position, from 0, in the order in which the ids were first applied
     * @param handle the transcoder, or 0
     * @return 1 when the rendition has an encoder again; 0 when OpenH264 made none, or none was open before, for a position
     *         that there is not and for a handle of 0
     */
    public static native int renew(int output, long handle);

    /**
     * Frees the transcoder with its decoder and its renditions. The handle is dead afterwards, and so is every buffer
     * that a listener was given. From the transcoder's own callback, that is put off to the end of the call that it
     * belongs to, which calls back for the other renditions as ever.
     *
     * @param handle the transcoder, or 0 for no effect
     * @return 0 in every case
     */
    public static native int close(long handle);
}
