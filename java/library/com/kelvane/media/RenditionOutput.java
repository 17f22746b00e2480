package com.kelvane.media;

import com.kelvane.media.transform.codec.MIRVProcessor;
import java.time.Duration;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.Consumer;
import java.util.function.UnaryOperator;

/**
 * One rendition of a transcoder at work. One thread, the transcoder's, uses it at a time; any other may ask for changes,
 * which that one makes at its next picture, and read the figures.
 */
final class RenditionOutput {
    private static final int NOT_OPENED = 2;
    private static final int SIZE_REFUSED = 5; // by OpenH264, of a picture
    private static final float FIRST_RATE = 30; // pictures per second of an encoder that is told no rate

    private final int index;
    private final Recovery recovery;
    // Handed over from other threads.
    private final AtomicReference<Rendition> asked;
    private final AtomicBoolean keyAsked = new AtomicBoolean();
    private volatile boolean paused;
    private volatile boolean removed;

    private Rendition rendition; // as the encoder has it
    private PictureRate rate = new PictureRate(FIRST_RATE);
    private boolean keyOwed; // asked for, and not yet delivered
    // The access unit of the picture at hand: out of the encoder's own memory, which a buffer kept too long must not
    // reach into.
    private byte[] bytes = new byte[0];
    private int size;
    private boolean available; // for the picture at hand
    private boolean wanted;
    private boolean key;       // whether that must be a key picture, whatever was asked for
    private long nanoseconds;
    private RuntimeException refused;
    private volatile ParameterSets parameterSets; // null before the first picture
    private volatile long pictures;
    private volatile long skipped;
    private volatile long failed;
    private volatile long totalBytes;
    private volatile long totalNanoseconds;

    RenditionOutput(int index, Rendition rendition, Consumer<? super EncoderFailure> listener) {
        this.index = index;
        this.rendition = rendition;
        asked = new AtomicReference<>(rendition);
        recovery = new Recovery("Transcoder", index, listener);
    }

    /** The settings that were asked for last. */
    Rendition rendition() {
        return asked.get();
    }

    /** Any thread: changes the settings of the next picture. */
    void ask(UnaryOperator<Rendition> change) {
        asked.updateAndGet(change);
    }

    /** Any thread: asks for a key picture. */
    void askForKey() {
        keyAsked.set(true);
    }

    /** Any thread: whether the rendition gets no pictures; the first one behind a pause is a key picture. */
    void pause(boolean pausing) {
        if (!pausing && paused) {
            keyAsked.set(true);
        }
        paused = pausing;
    }

    /** Any thread: null before the first picture. */
    ParameterSets parameterSets() {
        return parameterSets;
    }

    boolean isRemoved() {
        return removed;
    }

    /** Frees the encoder, for good. */
    void remove(long transcoder) {
        removed = true;
        wanted = false;
        MIRVProcessor.releaseOutput(index, transcoder);
        size = 0;
        bytes = new byte[0];
    }

    /** Opens the encoder of a rendition that came later. */
    void start(long transcoder) {
        apply(transcoder);
        MIRVProcessor.startOutput(index, transcoder);
        checkOpened(transcoder);
    }

    /** Hands the settings to the transcoder. Ids begin at 1; they follow the positions. */
    void apply(long transcoder) {
        set("videoWidth", rendition.width(), transcoder);
        set("videoHeight", rendition.height(), transcoder);
        set("videoBR", rendition.bitrate(), transcoder);
        set("videoFPS", rendition.frameRate(), transcoder);
        set("videoKey", rendition.keyInterval(), transcoder);
        set("videoEncMode", rendition.rateControl() == Rendition.RateControl.QUALITY ? 1 : 0, transcoder);
        set("videoEncProfile", rendition.entropyCoding() == Rendition.EntropyCoding.CABAC ? 1 : 0, transcoder);
        set("videoQPMin", rendition.smallestQuantiser(), transcoder);
        set("videoQPMax", rendition.largestQuantiser(), transcoder);
    }

    private void set(String key, int value, long transcoder) {
        MIRVProcessor.apply(index + 1, key, Integer.toString(value), transcoder);
    }

    /** @throws MediaException if the encoder was refused */
    void checkOpened(long transcoder) {
        int status = MIRVProcessor.status(index, transcoder);
        if (status != 0 && status != NOT_OPENED) {
            throw new MediaException("OpenH264 " + (status < 0 ? "refused the settings of" : "made no encoder for")
                    + " rendition " + (index + 1) + ", " + rendition);
        }
    }

    /** A picture has come, and is to be encoded if nobody minds. */
    void begin() {
        available = !paused && !removed;
        wanted = available;
        key = false;
    }

    /** Says whether the picture at hand is to be encoded, if that can be. */
    void choose(boolean isWanted) {
        wanted = isWanted && available;
    }

    boolean isWanted() {
        return wanted;
    }

    void makeKey() {
        key = true;
    }

    /**
     * Makes the changes that were asked for, at the picture at hand, if it is wanted; the encoder must not be at work.
     *
     * @param time of the picture in milliseconds
     */
    void steer(long transcoder, long time) {
        if (!wanted) {
            return;
        }
        Rendition changed = asked.get();
        if (changed != rendition) {
            if (changed.bitrate() != rendition.bitrate()
                    && MIRVProcessor.setBitrate(index, changed.bitrate(), transcoder) == 0) {
                changed = changed.bitrate(rendition.bitrate()); // refused, and asked for again at the next picture
            }
            if (changed.frameRate() != rendition.frameRate()) {
                float told = changed.frameRate() > 0 ? changed.frameRate() : FIRST_RATE;
                MIRVProcessor.setFrameRate(index, told, transcoder);
                rate = new PictureRate(told);
            }
            rendition = changed;
        }
        float measured = rendition.frameRate() > 0 ? 0 : rate.next(time);
        if (measured > 0) {
            MIRVProcessor.setFrameRate(index, measured, transcoder);
        }
        if (key || keyAsked.get() && keyAsked.getAndSet(false)) {
            keyOwed = true;
            // A rendition of the source's size opens its encoder at its first picture, a key picture anyway.
            MIRVProcessor.requestKey(index, transcoder);
        }
    }

    /** Scales and encodes the transcoder's picture at hand, if it is wanted. */
    void encode(long transcoder) {
        size = 0;
        nanoseconds = 0;
        if (!wanted) {
            return;
        }
        long begin = System.nanoTime();
        int failure = tryEncoding(transcoder);
        if (failure == 0) {
            recovery.succeeded();
        } else {
            checkSize(failure, transcoder);
            if (recovery.recover(failure, () -> MIRVProcessor.renew(index, transcoder) == 1, () -> tryEncoding(transcoder))) {
                failure = 0;
            }
        }
        nanoseconds = System.nanoTime() - begin;
        totalNanoseconds += nanoseconds;
        if (size > 0) {
            pictures++;
            totalBytes += size;
        } else if (failure == 0) {
            skipped++;
        } else {
            failed++;
        }
    }

    // Returns 0 when the encoder took the picture, whether or not it skipped it.
    private int tryEncoding(long transcoder) {
        int encoded = MIRVProcessor.encodeInto(index, bytes, transcoder);
        if (encoded > bytes.length) {
            bytes = new byte[encoded + encoded / 4];
            MIRVProcessor.copyEncoded(index, bytes, transcoder);
        }
        size = encoded;
        return encoded > 0 ? 0 : MIRVProcessor.failure(index, transcoder);
    }

    // OpenH264 takes settings for sizes that it then fails to encode.
    private void checkSize(int failure, long transcoder) {
        if (rendition.isSourceSize() && pictures + skipped + failed == 0
                && (failure == SIZE_REFUSED || MIRVProcessor.status(index, transcoder) != 0)) {
            refused = new MediaException("OpenH264 does not encode pictures of the source's size, which rendition "
                    + (index + 1) + " is to have; sides of 16 pixels and more are encoded");
        }
    }

    /** Tells of the picture at hand if the encoder failed at it. */
    void tellFailure(long transcoder, long time, long milliseconds) {
        recovery.tell(transcoder, time, milliseconds);
    }

    /**
     * Hands the encoded picture, if there is one, to a receiver.
     *
     * @param written when its access unit was written, of {@link System#nanoTime}
     */
    void deliver(long transcoder, long time, long written, Consumer<? super EncodedPicture> receiver) {
        if (size > 0) {
            int encodedAs = MIRVProcessor.encodedAs(index, transcoder);
            ParameterSets before = parameterSets;
            if (EncodedPicture.type(encodedAs) == EncodedPicture.Type.IDR) {
                parameterSets = ParameterSets.from(before, bytes, size);
            }
            EncodedPicture picture = new EncodedPicture(rendition, index, time, bytes, size, encodedAs, keyOwed, nanoseconds,
                    System.nanoTime() - written, parameterSets == before ? null : parameterSets);
            keyOwed &= !picture.isAskedFor();
            try {
                receiver.accept(picture);
            } finally {
                picture.invalidate();
            }
        } else if (refused != null) {
            RuntimeException told = refused;
            refused = null;
            throw told;
        }
    }

    long lastNanoseconds() {
        return nanoseconds;
    }

    int lastSize() {
        return size;
    }

    Transcoder.RenditionStatistics statistics() {
        return new Transcoder.RenditionStatistics(rendition(), pictures, skipped, failed, totalBytes,
                Duration.ofNanos(totalNanoseconds));
    }
}
