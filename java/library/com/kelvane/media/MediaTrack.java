package com.kelvane.media;

import com.kelvane.media.transform.codec.Muxer;
import java.nio.ByteBuffer;
import java.util.Locale;
import java.util.Objects;
import java.util.Optional;

/**
 * What a {@link ContainerWriter} is told of one track. The methods that begin one name its codec; those with an argument
 * give a copy with one more property, and refuse a wrong value at once:
 * <pre>{@code
 * MediaTrack.h264(720, 576).pixelAspect(64, 45).rotation(90)
 * MediaTrack.aac(48_000, 2).priming(AacEncoder.LEAD_IN).language("fra").name("Director's comments")
 * }</pre>
 *
 * <p>Times of a track are in ticks: those of sound are its samples; those of pictures are {@value #PICTURE_TICKS} a second,
 * which milliseconds and the usual rates of pictures are whole numbers of, unless {@link #timescale(int)} says otherwise.
 */
public final class MediaTrack {
    /** Ticks of a second in which the times of pictures are counted, unless the track is told another number. */
    public static final int PICTURE_TICKS = 90_000;

    private static final int LARGEST_SIDE = 16_384;
    private static final int LARGEST_TIMESCALE = 1_000_000;
    private static final int LARGEST_RATE = 192_000;
    private static final int LARGEST_PRIMING = 48_000;
    private static final int LARGEST_COLOUR = 22;
    private static final int OPUS_RATE = 48_000;
    private static final byte[] NOTHING = {};
    private static final int MPEG1_RATE = 24_000; // MP3 of this rate and below is MPEG-2's

    /** What the units of a track are. */
    public enum Codec {
        /** H.264: access units in byte-stream form, as everywhere in this package. */
        H264(Muxer.H264),
        /** AAC: raw access units; an ADTS header is taken off. */
        AAC(Muxer.AAC),
        /** MP3 frames with their headers. */
        MP3(Muxer.MP3),
        /** Opus packets. */
        OPUS(Muxer.OPUS),
        /** Samples as in {@link Pcm}; a unit is any whole number of them. */
        PCM(Muxer.PCM);

        private final int number;

        Codec(int number) {
            this.number = number;
        }
    }

    private final Codec codec;
    private final int width;
    private final int height;
    private final int sampleRate;
    private final int channels;
    private int timescale;
    private int priming;
    private ParameterSets parameterSets;      // null until they are known
    private AudioConfiguration configuration; // of AAC
    private int pixelWidth;
    private int pixelHeight;
    private int rotation;
    private int range;
    private int primaries;
    private int transfer;
    private int matrix;
    private String language;
    private String name;

    private MediaTrack(Codec codec, int width, int height, int sampleRate, int channels) {
        this.codec = codec;
        this.width = width;
        this.height = height;
        this.sampleRate = sampleRate;
        this.channels = channels;
    }

    private MediaTrack(MediaTrack other) {
        this(other.codec, other.width, other.height, other.sampleRate, other.channels);
        timescale = other.timescale;
        priming = other.priming;
        parameterSets = other.parameterSets;
        configuration = other.configuration;
        pixelWidth = other.pixelWidth;
        pixelHeight = other.pixelHeight;
        rotation = other.rotation;
        range = other.range;
        primaries = other.primaries;
        transfer = other.transfer;
        matrix = other.matrix;
        language = other.language;
        name = other.name;
    }

    /**
     * A track of pictures.
     *
     * @param width of the coded pictures, in pixels
     * @param height in pixels
     * @return the track, of which the parameter sets are still to come: from {@link #parameterSets} or with the first key
     *         picture that is written
     */
    public static MediaTrack h264(int width, int height) {
        MediaTrack track = new MediaTrack(Codec.H264, Settings.check("width", width, 1, LARGEST_SIDE, "pixels"),
                Settings.check("height", height, 1, LARGEST_SIDE, "pixels"), 0, 0);
        track.timescale = PICTURE_TICKS;
        return track;
    }

    /**
     * A track of AAC-LC, as {@link AacEncoder} makes it.
     *
     * @param sampleRate in Hz, one of {@link AacEncoder#SAMPLE_RATES}
     * @param channels 1 to 6, or 8
     * @return the track
     */
    public static MediaTrack aac(int sampleRate, int channels) {
        return aac(AudioConfiguration.of(sampleRate, channels));
    }

    /**
     * A track of AAC as its AudioSpecificConfig says, which MP4, FLV and Matroska carry.
     *
     * @param configuration the AudioSpecificConfig, from 2 to 64 bytes
     * @return the track
     */
    public static MediaTrack aac(byte[] configuration) {
        return aac(AudioConfiguration.of(configuration));
    }

    /**
     * A track of AAC as an encoder makes it, for instance.
     *
     * @param configuration what a decoder is to know first
     * @return the track
     */
    public static MediaTrack aac(AudioConfiguration configuration) {
        MediaTrack track = sound(Codec.AAC, configuration.sampleRate(), configuration.channels(), 8);
        track.configuration = configuration;
        return track;
    }

    /**
     * A track of MP3.
     *
     * @param sampleRate in Hz
     * @param channels 1 or 2
     * @return the track
     */
    public static MediaTrack mp3(int sampleRate, int channels) {
        return sound(Codec.MP3, sampleRate, channels, 2);
    }

    /**
     * A track of Opus, with the priming of {@link OpusEncoder}, of which a tick is a 48000th of a second.
     *
     * @param channels 1 or 2
     * @return the track
     */
    public static MediaTrack opus(int channels) {
        return sound(Codec.OPUS, OPUS_RATE, channels, 2).priming(OpusEncoder.LEAD_IN);
    }

    /**
     * A track of samples of 16 bits.
     *
     * @param sampleRate in Hz
     * @param channels 1 to 8
     * @return the track
     */
    public static MediaTrack pcm(int sampleRate, int channels) {
        return sound(Codec.PCM, sampleRate, channels, 8);
    }

    private static MediaTrack sound(Codec codec, int sampleRate, int channels, int mostChannels) {
        MediaTrack track = new MediaTrack(codec, 0, 0, Settings.check("sampleRate", sampleRate, 1, LARGEST_RATE, "Hz"),
                Settings.check("channels", channels, 1, mostChannels, "channels"));
        track.timescale = sampleRate;
        return track;
    }

    /**
     * Tells the parameter sets of H.264 ahead of the first picture, for containers that begin with them.
     *
     * @param sets SPS and PPS in byte-stream form, or an AVCDecoderConfigurationRecord (avcC)
     * @return a copy with them
     * @throws IllegalArgumentException if there is not one of each at least, or this is a track of sound
     */
    public MediaTrack parameterSets(byte[] sets) {
        return parameterSets(ParameterSets.of(sets));
    }

    /**
     * Tells the parameter sets of H.264 ahead of the first picture, for containers that begin with them.
     *
     * @param sets those of a rendition, for instance
     * @return a copy with them
     * @throws IllegalArgumentException if this is a track of sound
     */
    public MediaTrack parameterSets(ParameterSets sets) {
        MediaTrack copy = pictures("parameterSets");
        copy.parameterSets = Objects.requireNonNull(sets, "sets");
        return copy;
    }

    /**
     * Sets what times are counted in.
     *
     * @param ticksPerSecond 1 to 1000000
     * @return a copy with it
     * @throws IllegalArgumentException if it is out of range, or this is a track of sound, of which a tick is a sample
     */
    public MediaTrack timescale(int ticksPerSecond) {
        MediaTrack copy = pictures("timescale");
        copy.timescale = Settings.check("timescale", ticksPerSecond, 1, LARGEST_TIMESCALE, "ticks a second");
        return copy;
    }

    /**
     * Sets the shape of the pixels. Containers tell it, and so do the parameter sets of the pictures that are written.
     *
     * @param pixelWidth 1 to 65535
     * @param pixelHeight 1 to 65535
     * @return a copy with it
     */
    public MediaTrack pixelAspect(int pixelWidth, int pixelHeight) {
        MediaTrack copy = pictures("pixelAspect");
        copy.pixelWidth = Settings.check("pixelWidth", pixelWidth, 1, 65_535, "");
        copy.pixelHeight = Settings.check("pixelHeight", pixelHeight, 1, 65_535, "");
        return copy;
    }

    /**
     * Has players turn the pictures. Only MP4 and MOV can tell it.
     *
     * @param degrees clockwise: 0, 90, 180 or 270
     * @return a copy with it
     */
    public MediaTrack rotation(int degrees) {
        MediaTrack copy = pictures("rotation");
        if (degrees % 90 != 0) {
            throw new IllegalArgumentException("rotation is " + degrees + ", allowed are 0, 90, 180 and 270 degrees");
        }
        copy.rotation = Settings.check("rotation", degrees, 0, 270, "degrees");
        return copy;
    }

    /**
     * Sets the range of the samples; told as the {@linkplain #pixelAspect shape of the pixels} is.
     *
     * @param full whether they go from 0 to 255, and not from 16 to 235
     * @return a copy with it
     */
    public MediaTrack fullRange(boolean full) {
        MediaTrack copy = pictures("fullRange");
        copy.range = full ? 2 : 1;
        return copy;
    }

    /**
     * Sets the colours by H.264's numbers; told as the {@linkplain #pixelAspect shape of the pixels} is.
     *
     * @param primaries 1 to 22; 1 is BT.709, 0 for not told
     * @param transfer likewise
     * @param matrix likewise
     * @return a copy with them
     */
    public MediaTrack colours(int primaries, int transfer, int matrix) {
        MediaTrack copy = pictures("colours");
        copy.primaries = Settings.check("primaries", primaries, 0, LARGEST_COLOUR, "");
        copy.transfer = Settings.check("transfer", transfer, 0, LARGEST_COLOUR, "");
        copy.matrix = Settings.check("matrix", matrix, 0, LARGEST_COLOUR, "");
        return copy;
    }

    /**
     * Tells how many samples at the beginning come from the encoder and are not sound, for the containers that say so. It
     * changes no time: {@link ContainerWriter} has what the times have to do with it.
     *
     * @param samples 0 to 48000; {@link AacEncoder#LEAD_IN} for instance
     * @return a copy with it
     */
    public MediaTrack priming(int samples) {
        if (isPictures()) {
            throw new IllegalArgumentException("priming: a track of pictures has none");
        }
        MediaTrack copy = new MediaTrack(this);
        copy.priming = Settings.check("priming", samples, 0, LARGEST_PRIMING, "samples");
        return copy;
    }

    /**
     * Sets the language.
     *
     * @param code three letters of ISO 639-2, {@code eng} for instance
     * @return a copy with it
     */
    public MediaTrack language(String code) {
        if (!code.matches("[a-z]{3}")) {
            throw new IllegalArgumentException("language is \"" + code + "\", allowed are three letters of ISO 639-2, as \"eng\"");
        }
        MediaTrack copy = new MediaTrack(this);
        copy.language = code;
        return copy;
    }

    /**
     * Sets the name that players show.
     *
     * @param title any text without control characters
     * @return a copy with it
     */
    public MediaTrack name(String title) {
        if (title.chars().anyMatch(Character::isISOControl)) {
            throw new IllegalArgumentException("name has control characters");
        }
        MediaTrack copy = new MediaTrack(this);
        copy.name = title;
        return copy;
    }

    private MediaTrack pictures(String property) {
        if (!isPictures()) {
            throw new IllegalArgumentException(property + ": a track of sound has none");
        }
        return new MediaTrack(this);
    }

    /** {@return what its units are} */
    public Codec codec() {
        return codec;
    }

    /** {@return ticks of a second} */
    public int timescale() {
        return timescale;
    }

    /** {@return samples at the beginning that are not sound} */
    public int priming() {
        return priming;
    }

    /**
     * {@return how RFC 6381 calls the codec, for playlists and players: {@code avc1.42c01f} or {@code mp4a.40.2} for
     * instance} Empty for PCM, which has no such name, and for H.264 while no parameter sets are known;
     * {@link ContainerWriter#track} knows them when the first key picture was written.
     */
    public Optional<String> codecs() {
        return Optional.ofNullable(switch (codec) {
            case H264 -> isComplete() ? parameterSets.codecs() : null;
            case AAC -> configuration.codecs();
            case MP3 -> String.format(Locale.ROOT, "mp4a.%x", sampleRate > MPEG1_RATE ? 0x6b : 0x69);
            case OPUS -> "opus";
            case PCM -> null;
        });
    }

    boolean isPictures() {
        return codec == Codec.H264;
    }

    /** Whether all is known that a container begins with. */
    boolean isComplete() {
        return !isPictures() || parameterSets != null;
    }

    int sampleRate() {
        return sampleRate;
    }

    int channels() {
        return channels;
    }

    /** Adds it to a muxer; the result is the muxer's. */
    int addTo(long muxer) {
        int number;
        if (isPictures()) {
            byte[] shape = ByteBuffer.allocate(9).putShort((short) pixelWidth).putShort((short) pixelHeight)
                    .put((byte) (rotation / 90)).put((byte) range).put((byte) primaries).put((byte) transfer)
                    .put((byte) matrix).array();
            number = Muxer.addPictures(width, height, timescale, isComplete() ? parameterSets.bytes() : NOTHING, shape, muxer);
        } else {
            number = Muxer.addSound(codec.number, sampleRate, channels, priming,
                    configuration == null ? NOTHING : configuration.bytes(), muxer);
        }
        int labelled = number < 0 ? 0 : Muxer.label(number, language, name, muxer);
        return labelled < 0 ? labelled : number;
    }

    @Override
    public String toString() {
        return isPictures() ? codec + " " + width + "x" + height : codec + " " + sampleRate + " Hz, " + channels + " channels";
    }
}
