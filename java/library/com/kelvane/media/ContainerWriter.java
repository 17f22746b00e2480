package com.kelvane.media;

import com.kelvane.media.MediaTrack.Codec;
import com.kelvane.media.transform.codec.Muxer;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.ByteBuffer;
import java.nio.channels.NonReadableChannelException;
import java.nio.channels.SeekableByteChannel;
import java.nio.channels.WritableByteChannel;
import java.nio.charset.StandardCharsets;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.EnumSet;
import java.util.List;
import java.util.Objects;
import java.util.Optional;
import java.util.Queue;
import java.util.Set;
import java.util.stream.Collectors;

/**
 * Writes access units into a container: an MP4 file, fragments for HLS and DASH, a stream of MPEG-TS or FLV for another
 * server, Matroska, Ogg. Nothing is decoded, no file is opened: bytes go to a channel of the caller's, fragments come back
 * in arrays.
 * <pre>{@code
 * try (FileChannel file = FileChannel.open(path, CREATE, WRITE, READ);
 *         ContainerWriter film = ContainerWriter.builder(ContainerWriter.Format.MP4)
 *                 .track(MediaTrack.h264(1280, 720))
 *                 .track(MediaTrack.aac(48_000, 2).priming(AacEncoder.LEAD_IN))
 *                 .fastStart()
 *                 .open(file)) {
 *     film.write(0, picture);                       // an EncodedPicture of a Transcoder
 *     film.write(1, unit, samples);                 // AAC, with its time
 *     ...
 *     film.finish();
 * }
 * }</pre>
 *
 * <h2>Times</h2>
 *
 * <p>Times and durations are whole numbers of the track's {@linkplain MediaTrack#timescale ticks}, on one time line for all
 * tracks: what has the same time is seen and heard together. Where a container counts in other ticks (Matroska and FLV in
 * milliseconds, MPEG-TS in 90000ths of a second) each time is rounded to the nearest one, so that errors do not add up; MP4
 * takes the ticks as they are, a scale of pictures below 10000 doubled until it is not, where the tracks of pictures differ
 * in theirs. A time is at most 2^32 seconds from 0. Decoding times rise from unit to unit in each track; presentation times lie
 * at or behind them, and behind them only where pictures are reordered. Tracks may be written in any order, but containers
 * keep that order, and players like it to be that of the times.
 *
 * <p>A duration of 0 stands for the time until the next unit of the track. MP4, Matroska and Ogg say how long units last; there
 * such a unit waits for the next one, or for {@link #cut(long)}, which tells when that one comes.
 *
 * <h2>The beginning</h2>
 *
 * <p>The time of a unit of sound is that of the first sample it decodes to. Encoders begin ahead of the sound: the first unit
 * of an {@link AacEncoder} has the time {@code -AacEncoder.LEAD_IN} when its sound begins at 0. So sound and pictures are in
 * step in every container, and what becomes of times before 0 depends on what it can tell:
 *
 * <table class="striped">
 * <caption>Units ahead of 0, and tracks that begin later</caption>
 * <thead>
 * <tr><th scope="col">Format<th scope="col">Sound before 0<th scope="col">Pictures<th scope="col">Tracks that begin behind 0
 * </thead>
 * <tbody>
 * <tr><th scope="row">MP4, MOV<td>kept, hidden by an edit list<td>may be shown and decoded before 0, hidden likewise<td>edit
 *     list, to the millisecond
 * <tr><th scope="row">FRAGMENTED_MP4<td>units that begin before 0 are left out, as Media Source players ignore edit
 *     lists<td>are
 *     shown at 0 or later<td>{@code tfdt} of their first fragment
 * <tr><th scope="row">MPEG_TS<td>left out; Opus has its priming<td>are decoded at -0.7 s or later<td>times (all are 1.4 s
 *     later, so that the clock comes first)
 * <tr><th scope="row">FLV<td>left out, as is what is decoded before the first unit of all<td>are decoded at 0 or later<td>times
 * <tr><th scope="row">MATROSKA<td>left out; Opus has its priming<td>are shown at 0 or later<td>times
 * <tr><th scope="row">OGG<td>has its priming<td>-<td>-
 * <tr><th scope="row">H264, ADTS, WAV<td>kept: there are no times<td>-<td>-
 * </tbody>
 * </table>
 *
 * <p>A unit of sound is left out whole. Where priming is not a whole number of units (it is one for {@code AacEncoder}), the
 * sound that shares one with it is lost: less than a unit's 21 ms, and what follows is where it belongs. {@link #write} tells
 * of every unit that was left out.
 *
 * <h2>Fragments</h2>
 *
 * <p>{@link Format#FRAGMENTED_MP4} begins with {@link #initSegment}; {@link #cut} ends a fragment and hands it out. With one
 * track, which is what CMAF asks for, it is a CMAF chunk; several of them make a segment. Its {@code tfdt} is the true
 * decoding time of its first unit, whatever the durations of earlier ones add up to. There is no edit list. Where pictures are
 * reordered and the first one is decoded before 0, the decoding times of the whole track are moved to where it is shown, and
 * composition offsets may be negative, so that all presentation times stay as they were given. Media Source players read that
 * as it is meant; FFmpeg, and what plays with it, shows such a track as much too late as it was moved, and right when all tracks
 * begin that much later.
 *
 * <h2>Parameter sets</h2>
 *
 * <p>Containers begin with the parameter sets of H.264. A track that was opened without gets them from its first access unit
 * that has an SPS and a PPS, as every key picture of this package's encoders does. Until then its units are left out, and
 * those of other tracks wait, up to {@value #WAITING_LIMIT} bytes of them; more are left out. Units keep the parameter sets
 * they have.
 *
 * <h2>Memory</h2>
 *
 * <p>Units go through as they are written, and nothing of them is kept but: in MP4 and MOV an index of about 110 bytes a
 * unit until {@link #finish}, 60 MB for two hours of film with sound; in Matroska into a file 32 bytes for each key picture;
 * a cluster of Matroska (5 MB or 5 seconds), a page of Ogg or 350 ms of MPEG-TS sound; of a fragment its units, up to 64 MB,
 * beyond which {@code write} throws.
 *
 * <p>{@code examples/hls/HlsLadder.java} makes an HLS ladder with sound in some 80 lines.
 *
 * <p>One thread may use a writer at a time: anything else is refused with an {@link IllegalStateException}. A wrong argument
 * is an {@link IllegalArgumentException} and changes nothing. When the channel throws, the writer is of no more use, as the
 * container would have a hole.
 */
public final class ContainerWriter implements AutoCloseable {
    /** Bytes of units that wait for the parameter sets of another track. */
    public static final int WAITING_LIMIT = 16 << 20;

    /** The containers. */
    public enum Format {
        /** An MP4 file, into a channel with positions. H.264, AAC, MP3 (16 kHz or more), Opus. */
        MP4("mp4", 64, Codec.H264, Codec.AAC, Codec.MP3, Codec.OPUS),
        /** Fragments of MP4, for CMAF, HLS, DASH and Media Source players, which {@link #cut} hands out. Codecs as MP4. */
        FRAGMENTED_MP4("mp4", 64, Codec.H264, Codec.AAC, Codec.MP3, Codec.OPUS),
        /** A QuickTime file, into a channel with positions. H.264, AAC, MP3, PCM. */
        MOV("mov", 64, Codec.H264, Codec.AAC, Codec.MP3, Codec.PCM),
        /** An MPEG-2 transport stream. H.264, AAC, MP3, Opus. */
        MPEG_TS("mpegts", 64, Codec.H264, Codec.AAC, Codec.MP3, Codec.OPUS),
        /**
         * FLV, also what RTMP carries: one track of H.264 and one of AAC, or MP3 or PCM of one or two channels at 11025, 22050
         * or 44100 Hz.
         */
        FLV("flv", 2, Codec.H264, Codec.AAC, Codec.MP3, Codec.PCM),
        /** Matroska; with an index if the channel has positions. Every codec. */
        MATROSKA("matroska", 64, Codec.values()),
        /** Ogg: Opus. */
        OGG("ogg", 1, Codec.OPUS),
        /** Bare H.264: the access units one after the other, with what the track says in their parameter sets. */
        H264("h264", 1, Codec.H264),
        /** AAC with a header for each unit; one track. */
        ADTS("adts", 1, Codec.AAC),
        /** A WAV file; the lengths in its header are right only if the channel has positions. One track of PCM. */
        WAV("wav", 1, Codec.PCM);

        private final String name;
        private final int mostTracks;
        private final Set<Codec> codecs;

        Format(String name, int mostTracks, Codec... codecs) {
            this.name = name;
            this.mostTracks = mostTracks;
            this.codecs = EnumSet.copyOf(Arrays.asList(codecs));
        }

        private boolean needsPositions() {
            return this == MP4 || this == MOV;
        }
    }

    private static final List<Integer> FLV_RATES = List.of(11_025, 22_050, 44_100);
    private static final int LOWEST_MP3_RATE = 16_000; // in MP4
    private static final int RUN_INFO = 29;
    private static final int PIECE_INFO = 17;
    private static final int MOVE_BUFFER = 1 << 20;
    // Into a file a write for each unit would take longer than the unit's muxing.
    private static final int FILE_BUFFER = 1 << 16;

    private final Engine engine;
    private final Format format;
    private final MediaTrack[] tracks;
    private final WritableByteChannel channel;
    private final SeekableByteChannel file; // the channel, if it has positions
    private final long start;
    private final int firstFragment;
    private final byte[] info = new byte[PIECE_INFO];
    private byte[] piece = new byte[0];
    private byte[] initSegment;
    private Queue<Waiting> waiting = new ArrayDeque<>(); // null when the muxer has begun
    private int waitingSize;
    private boolean finished;
    private Throwable broken;

    /** A unit of a track that has to wait for the parameter sets of another. */
    private record Waiting(int track, byte[] unit, long presentationTime, long decodingTime, long duration, boolean key) {
    }

    private ContainerWriter(Builder settings, WritableByteChannel channel) {
        format = settings.format;
        tracks = settings.tracks.toArray(MediaTrack[]::new);
        firstFragment = settings.firstFragment;
        this.channel = channel;
        file = channel instanceof SeekableByteChannel ? (SeekableByteChannel) channel : null;
        try {
            start = file == null ? 0 : file.position();
            if (settings.fastStart) {
                file.read(ByteBuffer.allocate(0));
            }
        } catch (IOException unusable) {
            throw new UncheckedIOException(unusable);
        } catch (NonReadableChannelException written) {
            throw new IllegalArgumentException("fastStart: what was written is read again; open the channel for reading too",
                    written);
        }
        int options = (format == Format.FRAGMENTED_MP4 ? Muxer.FRAGMENTED : 0) | (file == null ? 0 : Muxer.SEEKABLE)
                | (settings.fastStart ? Muxer.FAST_START : 0);
        engine = Engine.open("ContainerWriter", () -> Muxer.open(format.name, options), Muxer::close);
        try {
            beginWhenComplete(engine.enter("open"));
        } catch (Throwable failed) {
            engine.exit();
            engine.close();
            throw failed;
        }
        engine.exit();
    }

    /**
     * Begins a writer's settings.
     *
     * @param format the container
     * @return a builder without tracks
     */
    public static Builder builder(Format format) {
        return new Builder(Objects.requireNonNull(format, "format"));
    }

    /** {@return the container} */
    public Format format() {
        return format;
    }

    /**
     * {@return a track as it is known now: with its parameter sets, when they have come with its pictures}
     *
     * @param number from 0, in the order in which the tracks were given
     */
    public MediaTrack track(int number) {
        return tracks[Objects.checkIndex(number, tracks.length)];
    }

    /**
     * {@return how RFC 6381 calls the codecs of all tracks, with commas between them, as CODECS of a playlist}
     *
     * @throws IllegalStateException while a track of H.264 has no parameter sets
     */
    public String codecs() {
        requireComplete("codecs");
        return Arrays.stream(tracks).flatMap(track -> track.codecs().stream()).distinct().collect(Collectors.joining(","));
    }

    /**
     * {@return what a player is given ahead of the fragments: the boxes {@code ftyp} and {@code moov}}
     *
     * @throws IllegalStateException while a track of H.264 has no parameter sets, or the format is another one
     */
    public byte[] initSegment() {
        if (format != Format.FRAGMENTED_MP4) {
            throw new IllegalStateException("ContainerWriter.initSegment: " + format + " has no fragments");
        }
        requireComplete("initSegment");
        return initSegment.clone();
    }

    private void requireComplete(String operation) {
        for (int i = 0; i < tracks.length; i++) {
            if (!tracks[i].isComplete()) {
                throw new IllegalStateException("ContainerWriter." + operation + ": track " + i + " has no parameter sets yet;"
                        + " they come with its first key picture, or from MediaTrack.parameterSets");
            }
        }
    }

    /**
     * Writes a picture of a {@link Transcoder}, which comes in the order of display, at its own time.
     *
     * @param track a track of H.264
     * @param picture is copied
     * @return whether it was written, or is to be; false when it was left out
     * @throws IllegalArgumentException as for the other methods
     * @throws IllegalStateException if this writer is closed, finished or in use, or the picture's callback is over
     */
    public boolean write(int track, EncodedPicture picture) {
        long time = Math.multiplyExact(picture.time(), track(track).timescale()) / 1000;
        return write(track, picture.bytes(), picture.size(), time, time, 0, picture.isKey());
    }

    /**
     * Writes a unit that is decoded and presented at the same time: sound, or pictures that are not reordered. It lasts until
     * the next one.
     *
     * @param track the track's number
     * @param unit its bytes; not changed and not kept
     * @param time in ticks of the track
     * @return whether it was written, or is to be; false when it was left out
     * @throws IllegalArgumentException as for the next method
     * @throws IllegalStateException if this writer is closed, finished or in use
     * @throws MediaException as for the next method
     * @throws UncheckedIOException as for the next method
     */
    public boolean write(int track, byte[] unit, long time) {
        return write(track, unit, time, time, 0);
    }

    /**
     * Writes a unit. Decoding can begin with it if it is sound or an IDR picture.
     *
     * @param track the track's number
     * @param unit its bytes; not changed and not kept
     * @param presentationTime when it is shown or heard, in ticks of the track
     * @param decodingTime when it is decoded, likewise
     * @param duration how long it lasts, likewise; 0 for until the next one
     * @return whether it was written, or is to be; false when it was left out
     * @throws IllegalArgumentException if there is no such track, the unit is empty or is no unit of its codec, or the times
     *         are such as the container cannot have
     * @throws IllegalStateException if this writer is closed, finished or in use
     * @throws MediaException if there is no memory, or FFmpeg refuses what nothing here has seen
     * @throws UncheckedIOException if the channel throws; from then on this writer is of no use
     */
    public boolean write(int track, byte[] unit, long presentationTime, long decodingTime, long duration) {
        return write(track, unit, unit.length, presentationTime, decodingTime, duration,
                !track(track).isPictures() || AnnexB.isKey(unit, unit.length));
    }

    /**
     * Writes a unit, of which the caller knows whether decoding can begin with it: at a picture that is no IDR picture, but
     * after which nothing refers back, players may begin as well.
     *
     * @param track the track's number
     * @param unit its bytes; not changed and not kept
     * @param presentationTime when it is shown or heard, in ticks of the track
     * @param decodingTime when it is decoded, likewise
     * @param duration how long it lasts, likewise; 0 for until the next one
     * @param key whether decoding can begin with it
     * @return whether it was written, or is to be; false when it was left out
     */
    public boolean write(int track, byte[] unit, long presentationTime, long decodingTime, long duration, boolean key) {
        return write(track, unit, unit.length, presentationTime, decodingTime, duration, key);
    }

    private boolean write(int track, byte[] unit, int size, long presentationTime, long decodingTime, long duration,
                          boolean key) {
        Objects.checkIndex(track, tracks.length);
        long handle = engine.enter("write");
        try {
            requireUsable("write");
            if (waiting == null) {
                return mux(handle, track, unit, size, presentationTime, decodingTime, duration, key);
            }
            if (!tracks[track].isComplete()) {
                Optional<ParameterSets> sets = ParameterSets.in(unit, size);
                if (sets.isEmpty()) {
                    return false;
                }
                tracks[track] = tracks[track].parameterSets(sets.get());
            }
            if (size > WAITING_LIMIT - waitingSize) {
                return false;
            }
            waiting.add(new Waiting(track, Arrays.copyOf(unit, size), presentationTime, decodingTime, duration, key));
            waitingSize += size;
            return beginWhenComplete(handle);
        } finally {
            engine.exit();
        }
    }

    /** Begins when all tracks are known, and writes what has waited; whether the last of that was not left out. */
    private boolean beginWhenComplete(long handle) {
        if (!Arrays.stream(tracks).allMatch(MediaTrack::isComplete)) {
            return true;
        }
        Queue<Waiting> units = waiting;
        waiting = null;
        for (int i = 0; i < tracks.length; i++) {
            int result = tracks[i].addTo(handle);
            if (result < 0) {
                throw fail(new MediaException(format + " does not take track " + i + " (" + tracks[i] + ")"));
            }
        }
        int result = Muxer.begin(firstFragment, handle);
        if (result < 0) {
            throw fail(new MediaException(format + " cannot be begun with these tracks: " + describe(result)));
        }
        if (format == Format.FRAGMENTED_MP4) {
            initSegment = taken(handle, result);
        } else {
            handOn(handle);
        }
        boolean written = true;
        for (Waiting unit : units) {
            written = mux(handle, unit.track, unit.unit, unit.unit.length, unit.presentationTime, unit.decodingTime,
                    unit.duration, unit.key);
        }
        return written;
    }

    private boolean mux(long handle, int track, byte[] unit, int size, long presentationTime, long decodingTime, long duration,
                        boolean key) {
        int result = Muxer.write(track, unit, 0, size, presentationTime, decodingTime, duration, key, handle);
        if (result == Muxer.LEFT_OUT) {
            return false;
        }
        if (result < 0) {
            throw refusal(result, track, unit, size, presentationTime, decodingTime, duration);
        }
        if (result > (file == null ? 0 : FILE_BUFFER) && channel != null) {
            handOn(handle);
        }
        return true;
    }

    private RuntimeException refusal(int result, int number, byte[] unit, int size, long presentationTime, long decodingTime,
                                     long duration) {
        MediaTrack track = tracks[number];
        String which = "track " + number + " (" + track + "), " + size + " bytes at " + presentationTime + " (decoded at "
                + decodingTime + ", lasting " + duration + ", in ticks of 1/" + track.timescale() + " s): ";
        switch (result) {
            case Muxer.WRONG_UNIT:
                if (track.isPictures()) {
                    AnnexB.checked(size == unit.length ? unit : Arrays.copyOf(unit, size));
                }
                return new IllegalArgumentException(which + "no " + track.codec() + " unit that " + format + " can hold");
            case Muxer.NOT_RISING:
                return new IllegalArgumentException(which + "decoding times rise in each track, in the container's ticks too");
            case Muxer.SHOWN_BEFORE_DECODED:
                return new IllegalArgumentException(which + "it would be shown before it is decoded");
            case Muxer.OUT_OF_RANGE:
                return new IllegalArgumentException(which + "a time is at most 2^32 seconds from 0, and a duration is 0 to 2^30 ticks"
                        + ", as is the distance of decoding times");
            case Muxer.TOO_EARLY:
                return new IllegalArgumentException(which + format + " cannot tell of times that early; begin all tracks later"
                        + " by the same time");
            case Muxer.FRAGMENT_FULL:
                return new IllegalStateException(which + "the fragment holds 64 MB already; cut() ends it");
            default:
                return fail(new MediaException(which + describe(result)));
        }
    }

    /**
     * Ends a fragment. The last unit of each track, where its duration was not told, is taken to last as long as the one
     * before it.
     *
     * @return what was written since the last cut; empty when nothing was
     * @throws IllegalStateException if this writer is closed, finished or in use, or the format is another one
     */
    public Optional<Fragment> cut() {
        return cut(Muxer.UNKNOWN);
    }

    /**
     * Ends a fragment ahead of a unit of which the time is known, so that the last one of the track lasts until then.
     *
     * @param next when the next unit of track 0 is decoded, in its ticks
     * @return what was written since the last cut; empty when nothing was
     * @throws IllegalArgumentException if that time is not behind the last one of the track, or too far behind
     * @throws IllegalStateException if this writer is closed, finished or in use, or the format is another one
     */
    public Optional<Fragment> cut(long next) {
        if (format != Format.FRAGMENTED_MP4) {
            throw new IllegalStateException("ContainerWriter.cut: " + format + " has no fragments");
        }
        long handle = engine.enter("cut");
        try {
            requireUsable("cut");
            if (waiting != null) {
                return Optional.empty();
            }
            int result = Muxer.cut(next, handle);
            if (result == Muxer.NOT_RISING || result == Muxer.OUT_OF_RANGE) {
                throw new IllegalArgumentException("next is " + next + ": it lies behind the last decoding time of track 0, by at most"
                        + " 2^30 ticks");
            }
            if (result < 0) {
                throw fail(new MediaException("the fragment could not be made: " + describe(result)));
            }
            return result == 0 ? Optional.empty() : Optional.of(new Fragment(taken(handle, result), runs(handle)));
        } finally {
            engine.exit();
        }
    }

    private List<Fragment.Run> runs(long handle) {
        List<Fragment.Run> runs = new ArrayList<>(tracks.length);
        byte[] told = new byte[RUN_INFO];
        for (int i = 0; i < tracks.length; i++) {
            if (Muxer.run(i, told, handle) > 0) {
                ByteBuffer run = ByteBuffer.wrap(told);
                runs.add(new Fragment.Run(i, run.getLong(), run.getLong(), run.getLong(), run.getInt(), run.get() == 1));
            }
        }
        return runs;
    }

    /**
     * Writes the end of the container; to be called after the last unit, or the container has none: {@link #close} alone
     * leaves it unfinished, as after an error. Of {@link Format#FRAGMENTED_MP4} nothing is left to write, but what
     * {@link #cut} has not handed out is lost. The channel stays open.
     *
     * @throws IllegalStateException if this writer is closed, finished or in use
     * @throws MediaException if a track of H.264 never had its parameter sets, or there is no memory
     * @throws UncheckedIOException if the channel throws
     */
    public void finish() {
        long handle = engine.enter("finish");
        try {
            requireUsable("finish");
            finished = true;
            if (waiting != null) {
                throw new MediaException("nothing was written: no picture with parameter sets has come for all tracks of H.264");
            }
            int result = Muxer.finish(handle);
            if (result < 0) {
                throw fail(new MediaException("the container could not be finished: " + describe(result)));
            }
            if (channel != null) {
                handOn(handle);
            }
        } finally {
            engine.exit();
        }
    }

    /**
     * Frees the native engine; nothing when that was done before. The channel stays open.
     * When another thread uses this writer, the engine is freed when that call returns.
     *
     * @throws IllegalStateException if it is called by the channel that this writer writes to
     */
    @Override
    public void close() {
        engine.close();
    }

    private void requireUsable(String operation) {
        if (broken != null) {
            throw new IllegalStateException("ContainerWriter." + operation + ": this ContainerWriter has failed before: "
                    + broken.getMessage(), broken);
        }
        if (finished) {
            throw new IllegalStateException("ContainerWriter." + operation + ": this ContainerWriter is finished");
        }
    }

    private <T extends Throwable> T fail(T problem) {
        broken = problem;
        return problem;
    }

    private static String describe(int result) {
        byte[] text = new byte[64];
        return new String(text, 0, Muxer.describe(result, text), StandardCharsets.US_ASCII) + " (" + result + ")";
    }

    /** All that there is to take, in one array. */
    private byte[] taken(long handle, int size) {
        byte[] bytes = new byte[size];
        int at = 0;
        while (Muxer.next(info, handle) == Muxer.BYTES) {
            at += Muxer.take(bytes, at, handle);
        }
        return bytes;
    }

    /** Gives the channel all that there is to take. */
    private void handOn(long handle) {
        try {
            for (int kind = Muxer.next(info, handle); kind != Muxer.NOTHING; kind = Muxer.next(info, handle)) {
                ByteBuffer told = ByteBuffer.wrap(info, 1, PIECE_INFO - 1);
                long place = start + told.getLong();
                long size = told.getLong();
                if (kind == Muxer.MOVE) {
                    Muxer.take(null, 0, handle);
                    move(place, size);
                    continue;
                }
                if (piece.length < size) {
                    piece = new byte[(int) size];
                }
                Muxer.take(piece, 0, handle);
                if (file != null && file.position() != place) {
                    file.position(place);
                }
                write(channel, ByteBuffer.wrap(piece, 0, (int) size));
            }
        } catch (IOException failed) {
            throw fail(new UncheckedIOException(failed));
        } catch (RuntimeException failed) {
            throw fail(failed);
        }
        if (piece.length > 2 * FILE_BUFFER) {
            piece = new byte[0];
        }
    }

    /** Moves all from a place on towards the end, beginning with the last bytes. */
    private void move(long from, long distance) throws IOException {
        ByteBuffer buffer = ByteBuffer.allocate(MOVE_BUFFER);
        for (long end = file.size(); end > from;) {
            int size = (int) Math.min(MOVE_BUFFER, end - from);
            end -= size;
            buffer.clear().limit(size);
            file.position(end);
            while (buffer.hasRemaining()) {
                if (file.read(buffer) < 0) {
                    throw new IOException("the channel has lost what was written to it");
                }
            }
            file.position(end + distance);
            write(file, buffer.flip());
        }
    }

    private static void write(WritableByteChannel to, ByteBuffer bytes) throws IOException {
        while (bytes.hasRemaining()) {
            to.write(bytes);
        }
    }

    /** Collects a writer's settings. */
    public static final class Builder {
        private final Format format;
        private final List<MediaTrack> tracks = new ArrayList<>();
        private boolean fastStart;
        private int firstFragment = 1;

        private Builder(Format format) {
            this.format = format;
        }

        /**
         * Adds a track; the first one has number 0.
         *
         * @param track what is to be known of it
         * @return this builder
         * @throws IllegalArgumentException if the container does not take its codec, or no more tracks
         */
        public Builder track(MediaTrack track) {
            if (!format.codecs.contains(track.codec())) {
                throw new IllegalArgumentException(format + " takes " + format.codecs + ", not " + track.codec());
            }
            if (tracks.size() >= format.mostTracks) {
                throw new IllegalArgumentException(format + " takes " + format.mostTracks + " tracks");
            }
            if (format == Format.FLV) {
                checkFlv(track);
            }
            if (format.name.equals("mp4") && track.codec() == Codec.MP3 && track.sampleRate() < LOWEST_MP3_RATE) {
                throw new IllegalArgumentException("sampleRate is " + track.sampleRate() + ", allowed in MP4 are " + LOWEST_MP3_RATE
                        + " Hz and more for MP3");
            }
            tracks.add(track);
            return this;
        }

        private void checkFlv(MediaTrack track) {
            if (tracks.stream().anyMatch(other -> other.isPictures() == track.isPictures())) {
                throw new IllegalArgumentException("FLV takes one track of pictures and one of sound");
            }
            boolean anyRate = track.isPictures() || track.codec() == Codec.AAC;
            if (!anyRate && !(FLV_RATES.contains(track.sampleRate()) && track.channels() <= 2)) {
                throw new IllegalArgumentException("allowed in FLV are one or two channels at " + FLV_RATES + " Hz for "
                        + track.codec() + ", not " + track);
            }
        }

        /**
         * Has an MP4 or MOV file begin with its index, so that players need not look at its end first. {@link #finish} then
         * moves what was written back by the index's length, in the channel, a megabyte at a time; it has to be open for
         * reading too.
         *
         * @return this builder
         * @throws IllegalArgumentException if the format is another one
         */
        public Builder fastStart() {
            if (!format.needsPositions()) {
                throw new IllegalArgumentException("fastStart: " + format + " has no index to put in front");
            }
            fastStart = true;
            return this;
        }

        /**
         * Sets the number that the first fragment has in its {@code mfhd}, where the fragments of several writers follow one
         * another.
         *
         * @param number 1 or more
         * @return this builder
         */
        public Builder firstFragment(int number) {
            firstFragment = Settings.check("firstFragment", number, 1, Integer.MAX_VALUE, "");
            return this;
        }

        /**
         * Makes a writer of fragments.
         *
         * @return the writer, to be closed
         * @throws IllegalArgumentException if the format is not {@link Format#FRAGMENTED_MP4}, or there is no track
         * @throws MediaException if the native library is missing, FFmpeg refuses the tracks, or there is no memory
         */
        public ContainerWriter open() {
            if (format != Format.FRAGMENTED_MP4) {
                throw new IllegalArgumentException(format + " is written to a channel: open(channel)");
            }
            return make(null);
        }

        /**
         * Makes a writer that writes to a channel. One with positions is written from its current position on, where the
         * formats that come back to what they have written do so; MP4 and MOV need one.
         *
         * @param channel is written to by the thread that calls the writer, until it has taken all; stays open
         * @return the writer, to be closed
         * @throws IllegalArgumentException if the format is {@link Format#FRAGMENTED_MP4}, of which {@link #cut} hands out the
         *         parts, or needs a channel with positions, or there is no track
         * @throws MediaException if the native library is missing, FFmpeg refuses the tracks, or there is no memory
         * @throws UncheckedIOException if the channel throws
         */
        public ContainerWriter open(WritableByteChannel channel) {
            Objects.requireNonNull(channel, "channel");
            if (format == Format.FRAGMENTED_MP4) {
                throw new IllegalArgumentException(format + " is handed out by initSegment() and cut(): open()");
            }
            if (format.needsPositions() && !(channel instanceof SeekableByteChannel)) {
                throw new IllegalArgumentException(format + " needs a SeekableByteChannel, as a FileChannel is one");
            }
            return make(channel);
        }

        private ContainerWriter make(WritableByteChannel channel) {
            if (tracks.isEmpty()) {
                throw new IllegalArgumentException("no track was given");
            }
            Natives.load();
            return new ContainerWriter(this, channel);
        }
    }
}
