package com.kelvane.media;

/** One rendition's share of a picture: what is asked of its encoder, and what came out. */
final class Encoding {
    private static final byte[] NONE = new byte[0];

    final PictureAtWork picture;
    final RenditionOutput output;
    private boolean available;
    private boolean wanted;

    // From the thread inside the transcoder, for the one that encodes.
    boolean key;     // whether it must be a key picture
    Rendition asked; // the settings to encode it with

    // From the thread that encodes.
    Rendition rendition; // as the encoder had it
    byte[] bytes = NONE; // out of the encoder's own memory, which a buffer kept too long must not reach into
    int size;            // of the access unit
    int encodedAs;
    boolean askedFor; // it is the key picture that was asked for
    long nanoseconds;
    EncoderFailure failure;
    Throwable thrown;

    boolean waiting; // to be taken by a thread; ParallelEncoding's

    Encoding(PictureAtWork picture, RenditionOutput output) {
        this.picture = picture;
        this.output = output;
    }

    /** A picture has come, and is to be encoded if nobody minds. */
    void begin() {
        available = output.isAtWork();
        wanted = available;
        key = false;
        if (output.isRemoved()) {
            bytes = NONE;
        }
        size = 0;
        nanoseconds = 0;
        failure = null;
        thrown = null;
    }

    /** Says whether the picture is to be encoded, if that can be. */
    void choose(boolean isWanted) {
        wanted = isWanted && available;
    }

    boolean isWanted() {
        return wanted;
    }
}
