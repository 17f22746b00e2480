package com.kelvane.media;

/**
 * What became of an access unit that a {@link Transcoder} was given. In a stream that reorders pictures, the one that came
 * out need not be the one that went in.
 */
public enum WriteResult {
    /** A picture came out. */
    DECODED,
    /**
     * A picture came out that is not what the source's encoder saw: errors in it were concealed, or pictures that it may
     * refer to are missing, be it that the stream left them out itself, as a server that drops temporal layers does. Those
     * behind it may show the same damage, and count as {@link #DECODED}: {@link Transcoder#needsKey} holds on to it.
     */
    DAMAGED,
    /** Its picture is kept to be put in order, or waits for its other field; it comes out in a later call. */
    HELD_BACK,
    /** There is no picture in it, for instance only parameter sets. */
    NO_PICTURE,
    /**
     * Nothing can be made of its picture: it is damaged, the parameter sets or the key picture that it needs did not come,
     * or no decoder of the standard has to take it.
     */
    REFUSED;

    private static final WriteResult[] VALUES = values();

    /** By the numbers of the native transcoder. */
    static WriteResult of(int outcome) {
        return VALUES[outcome & 0xff];
    }

    /** {@return whether a picture came out} */
    public boolean isPicture() {
        return this == DECODED || this == DAMAGED;
    }
}
