package com.kelvane.media;

import java.util.function.BooleanSupplier;
import java.util.function.Consumer;
import java.util.function.IntSupplier;

/**
 * Brings one encoder back after pictures that it failed at. One thread uses it at a time, but to tell what was taken.
 *
 * <p>Making an encoder costs about as much as encoding a picture. One that has done nothing yet would fail at the same
 * picture again; so a picture is tried twice only when it ended a row of good ones, and one that fails whatever it is
 * given costs little more than one that works.
 */
final class Recovery {
    // Pictures lost in a row after which most are given up without a new encoder, and how many of them: at 30 pictures a
    // second an encoder that always fails is made once a second after the first ten.
    private static final int PATIENCE = 300;
    private static final int PAUSE = 30;

    private final String engine;
    private final int index;
    private final Consumer<? super EncoderFailure> listener;
    private boolean proven; // the encoder at work has not failed at everything
    private int lost; // in a row
    private int code; // of the failure at hand
    private boolean pending;

    Recovery(String engine, int index, Consumer<? super EncoderFailure> listener) {
        this.engine = engine;
        this.index = index;
        this.listener = listener;
    }

    /** The encoder took its picture. */
    void succeeded() {
        proven = true;
        lost = 0;
    }

    /**
     * The encoder failed at its picture.
     *
     * @param failure what it answered, not 0
     * @param renew makes it anew, if it can
     * @param retry gives it the picture once more, and returns what {@code failure} then is
     * @return whether the picture is taken now
     */
    boolean recover(int failure, BooleanSupplier renew, IntSupplier retry) {
        code = failure;
        pending = true;
        boolean tryAgain = proven;
        proven = false;
        lost++;
        if (lost > PATIENCE && lost % PAUSE != 0) {
            return false;
        }
        if (renew.getAsBoolean() && tryAgain) {
            if (retry.getAsInt() == 0) {
                succeeded();
                return true;
            }
            renew.getAsBoolean();
        }
        return false;
    }

    /** Tells of the failure at hand, if there is one. */
    void tell(long handle, long time, long milliseconds) {
        EncoderFailure failure = take(time);
        if (failure != null) {
            tell(failure, handle, milliseconds);
        }
    }

    /** {@return the failure at hand, to be told later; null when there is none} */
    EncoderFailure take(long time) {
        if (!pending) {
            return null;
        }
        pending = false;
        return new EncoderFailure(index, time, lost > 0, reason(code));
    }

    /** Tells of a failure, on any thread. */
    void tell(EncoderFailure failure, long handle, long milliseconds) {
        PictureFailed event = new PictureFailed();
        if (event.shouldCommit()) {
            event.engine = engine;
            event.handle = handle;
            event.index = index;
            event.time = milliseconds;
            event.lost = failure.lost();
            event.reason = failure.reason();
            event.commit();
        }
        if (listener != null) {
            listener.accept(failure);
        }
    }

    private static String reason(int code) {
        return switch (code) {
            case 3 -> "OpenH264 has no room for the bits of the picture, or no memory (result 3)";
            case 5 -> "OpenH264 does not encode pictures of this size (result 5)";
            case -1 -> "the picture could not be handed over, or its access unit is larger than the picture";
            default -> code < 0 ? "FFmpeg's OpenH264 encoder failed (error " + code + ")"
                    : "OpenH264 failed (result " + code + ")";
        };
    }
}
