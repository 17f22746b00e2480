package com.kelvane.media;

import java.util.Objects;

/**
 * What a {@link Transcoder} is about to do with the picture at hand: at first, to encode it into every rendition that is not
 * paused. {@link Transcoder.Builder#plan} has it asked about each picture, to thin out a stream, to begin and end between its
 * key pictures, or to have segments begin at the same times everywhere:
 * <pre>{@code
 * Transcoder.builder().renditions(rungs).plan(picture -> {
 *     picture.select(2, picture.time() % 80 == 0);
 *     if (picture.time() % 2000 == 0) {
 *         picture.keyAll();
 *     }
 * })
 * }</pre>
 *
 * <p>It is valid during that call only, as the transcoder has but one of them; what is called behind it throws an
 * {@link IllegalStateException}. Indices are positions in {@link Transcoder#renditions}.
 */
public final class PicturePlan {
    private static final int SIDE = 0xffff; // of the native transcoder's bits, as those below
    private static final long INTERLACED = 1L << 32;
    private static final long KEY = 1L << 33;

    private Encoding[] encodings; // null outside of the call
    private long time;
    private long about;

    PicturePlan() {
    }

    /** @param about what the native transcoder tells of the picture */
    void begin(PictureAtWork picture, long pictureInfo) {
        encodings = picture.encodings();
        time = picture.time();
        about = pictureInfo;
    }

    void end() {
        encodings = null;
    }

    /** {@return the picture's own presentation time, in the transcoder's ticks} */
    public long time() {
        return time;
    }

    /** {@return the width of the source's picture, in pixels} */
    public int width() {
        return (int) about & SIDE;
    }

    /** {@return the height of the source's picture, in pixels} */
    public int height() {
        return (int) (about >> 16) & SIDE;
    }

    /** {@return whether the picture is made of two fields} */
    public boolean isInterlaced() {
        return (about & INTERLACED) != 0;
    }

    /** {@return whether decoding of the source can begin with the picture} */
    public boolean isSourceKey() {
        return (about & KEY) != 0;
    }

    /** {@return how many renditions there are, those that are paused or were removed among them} */
    public int renditions() {
        return valid().length;
    }

    /**
     * Says whether the picture is to be encoded into a rendition. One that does not get it goes on as if it had not been
     * there, and its figures do not count it.
     *
     * @param index the rendition's position
     * @param wanted without effect where the rendition is paused or was removed
     */
    public void select(int index, boolean wanted) {
        encoding(index).choose(wanted);
    }

    /**
     * Says whether the picture is to be encoded at all.
     *
     * @param wanted as for {@link #select}
     */
    public void selectAll(boolean wanted) {
        for (Encoding encoding : valid()) {
            encoding.choose(wanted);
        }
    }

    /**
     * {@return whether the picture is to be encoded into a rendition, as things stand}
     *
     * @param index the rendition's position
     */
    public boolean isSelected(int index) {
        return encoding(index).isWanted();
    }

    /**
     * Has a rendition make a key picture of it, from which its key interval is counted; nothing where it does not get the
     * picture. Otherwise that interval, and the encoder at a change of scene, decide.
     *
     * @param index the rendition's position
     */
    public void key(int index) {
        encoding(index).key = true;
    }

    /** Has every rendition that gets the picture make a key picture of it. */
    public void keyAll() {
        for (Encoding encoding : valid()) {
            encoding.key = true;
        }
    }

    private Encoding encoding(int index) {
        Encoding[] present = valid();
        return present[Objects.checkIndex(index, present.length)];
    }

    private Encoding[] valid() {
        if (encodings == null) {
            throw new IllegalStateException("a PicturePlan is valid during its call only");
        }
        return encodings;
    }
}
