package com.kelvane.media.tool.live;

import com.kelvane.media.MediaTrack;
import com.kelvane.media.tool.input.LiveSound;
import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.live.LiveSegment.Piece;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.packager.MasterPlaylist;
import com.kelvane.media.tool.packager.MediaPlaylist;
import com.kelvane.media.tool.packager.MediaPlaylist.Entry;
import com.kelvane.media.tool.packager.MediaPlaylist.Kind;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.packager.PictureRate;
import com.kelvane.media.tool.packager.Segment;
import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Deque;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.stream.Collectors;
import java.util.stream.IntStream;

/**
 * The files of a live ladder. A segment is listed for all renditions at once, when its pictures are complete; where one has none
 * of its own, as the machine had no time for it, the next smaller one's stands in. The sound is listed when it is complete.
 */
final class Publication {
    private static final int GRACE = 2;          // segments that stay when they are no longer listed
    private static final double HEADROOM = 1.25; // of the bit rate that is announced, over the one that is aimed at

    /** What is announced of a rendition. */
    private static final class Announced {
        String codecs; // null until a segment was made
        double fastest;
        long peak; // bits per second

        Announced(double bitrate) {
            peak = Math.round(HEADROOM * bitrate);
        }
    }

    private final List<RenditionOutput> outputs;
    private final List<Announced> announced;
    private final LiveFolder folder;
    private final double window;
    private final LiveFigures figures;
    private final Map<String, Map<String, byte[]>> initialisations = new HashMap<>(); // by folder and name
    private final Map<String, String> written = new HashMap<>();                      // playlists
    private final Deque<LiveSegment> listed = new ArrayDeque<>();
    private final Deque<LiveSegment> leaving = new ArrayDeque<>();
    private PictureMeaning meaning;
    private String soundCodecs; // null without sound
    private int channels;
    private long soundPeak; // announced, in bits per second
    private String[] last;  // the folders of the segment before
    private int target;     // seconds; a list's may not change, unless a segment is longer
    private int gone;
    private int goneBegins;
    private boolean finished;

    /**
     * @param bitrates that are aimed at, in bits per second
     * @param window seconds to list, 0 for all
     */
    Publication(List<RenditionOutput> outputs, List<Integer> bitrates, LiveFolder folder, int segmentSeconds, double window,
                LiveFigures figures) throws IOException {
        this.outputs = outputs;
        this.folder = folder;
        this.window = window;
        this.figures = figures;
        announced = bitrates.stream().map(Announced::new).toList();
        target = segmentSeconds;
        for (RenditionOutput output : outputs) {
            folder.makeFolder(output.size());
        }
    }

    /** @param sound null without sound */
    void source(PictureMeaning shown, LiveSound sound) throws IOException {
        meaning = shown;
        if (sound == null) {
            return;
        }
        if (soundCodecs == null) {
            folder.makeFolder(Names.SOUND);
        }
        soundCodecs = MediaTrack.aac(sound.configuration()).codecs().orElseThrow();
        channels = sound.channels();
    }

    /**
     * What is known of a rendition of which there is a segment.
     *
     * @param codecs as RFC 6381 calls it
     * @param fastest pictures a second, as {@link PictureRate} measures it
     */
    void rendition(int number, String codecs, double fastest) {
        announced.get(number).codecs = codecs;
        announced.get(number).fastest = fastest;
    }

    /** Writes what players are to know first of segments in a folder; returns its name there. */
    String initialise(String track, byte[] bytes) {
        Map<String, byte[]> known = initialisations.computeIfAbsent(track, unknown -> new LinkedHashMap<>());
        for (Map.Entry<String, byte[]> entry : known.entrySet()) {
            if (Arrays.equals(entry.getValue(), bytes)) {
                return entry.getKey();
            }
        }
        String name = known.isEmpty() ? Names.INITIALISATION : "init-" + known.size() + ".mp4";
        if (write(track + "/" + name, bytes)) {
            known.put(name, bytes);
        }
        return name;
    }

    /** Writes a segment; returns null when that was not possible. */
    Piece store(String track, int number, String initialisation, Segment segment) {
        Piece piece = new Piece(track, Names.segment(number), initialisation, segment.begin(), segment.seconds(),
                segment.bytes().length);
        return write(piece.path(), segment.bytes()) ? piece : null;
    }

    private boolean write(String name, byte[] contents) {
        try {
            folder.write(name, contents);
            return true;
        } catch (IOException unwritable) { // later ones may be written again
            figures.note("segments", "%s could not be written (%s)", name, Failure.reason(unwritable));
            return false;
        }
    }

    /** A segment's pictures are complete. */
    void add(LiveSegment segment) {
        if (segment.listed(0) == null) {
            last = new String[0]; // something is missing there
            return;
        }
        String[] folders = segment.folders();
        segment.begins |= last != null && !Arrays.equals(folders, last);
        last = folders;
        listed.add(segment);
        figures.listed(segment.arrival);
        try {
            publish();
        } catch (IOException unwritable) {
            figures.note("lists", "playlists could not be written (%s)", Failure.reason(unwritable));
        }
    }

    /** @param piece the segment's sound; null when there is none */
    void addSound(LiveSegment segment, Piece piece) {
        segment.sound = piece;
        try {
            if (listed.contains(segment)) {
                publish();
            } else {
                remove(segment);
            }
        } catch (IOException unwritable) {
            figures.note("lists", "playlists could not be written (%s)", Failure.reason(unwritable));
        }
    }

    /** Makes the lists complete, with what there is. Returns whether there is anything to play. */
    boolean finish() throws IOException {
        finished = true;
        publish();
        while (!leaving.isEmpty()) {
            remove(leaving.poll());
        }
        return !listed.isEmpty();
    }

    private void publish() throws IOException {
        double seconds = listed.stream().mapToDouble(segment -> segment.listed(0).seconds()).sum();
        while (window > 0 && !listed.isEmpty() && seconds - listed.peek().listed(0).seconds() >= window - 0.001) {
            LiveSegment left = listed.poll();
            seconds -= left.listed(0).seconds();
            leaving.add(left);
            gone++;
            goneBegins += left.begins ? 1 : 0;
        }
        List<Entry> heard = listed.stream().filter(segment -> segment.sound != null)
                .map(segment -> segment.entry(segment.sound, Names.SOUND)).toList();
        boolean hasSound = soundCodecs != null && !(finished && heard.isEmpty());
        if (listed.isEmpty() || hasSound && heard.isEmpty()) {
            return;
        }
        List<MediaPlaylist> lists = new ArrayList<>();
        for (int i = 0; i < outputs.size(); i++) {
            int rendition = i;
            lists.add(new MediaPlaylist(listed.stream().map(segment -> segment.entry(segment.listed(rendition),
                    outputs.get(rendition).size())).toList()));
        }
        MediaPlaylist soundList = hasSound ? new MediaPlaylist(heard) : null;
        target = Math.max(target, Math.max(hasSound ? soundList.targetSeconds() : 0,
                lists.stream().mapToInt(MediaPlaylist::targetSeconds).max().orElse(0)));
        Kind kind = finished ? Kind.FINISHED : window > 0 ? Kind.SLIDING : Kind.GROWING;
        for (int i = 0; i < outputs.size(); i++) {
            writeList(outputs.get(i).size() + "/" + Names.PLAYLIST, lists.get(i).text(kind, target, gone, goneBegins));
        }
        if (hasSound) {
            writeList(Names.SOUND + "/" + Names.PLAYLIST, soundList.text(kind, target, gone, goneBegins));
        }
        writeList(Names.MASTER, master(lists, soundList));
        figures.window(gone, listed.size(), seconds);
        while (leaving.size() > GRACE) {
            remove(leaving.poll());
        }
    }

    /** Those of all that a rendition's list leads to, its own first. */
    private String codecs(int rendition) {
        return IntStream.range(0, outputs.size()).mapToObj(i -> (rendition + i) % outputs.size())
                .filter(i -> listed.stream().anyMatch(segment -> segment.listed(rendition) == segment.pieces[i]))
                .map(i -> announced.get(i).codecs).distinct().collect(Collectors.joining(","));
    }

    private void writeList(String name, String text) throws IOException {
        if (!text.equals(written.get(name))) {
            folder.write(name, text);
            written.put(name, text);
        }
    }

    private void remove(LiveSegment segment) throws IOException {
        for (Piece piece : segment.pieces) {
            if (piece != null) {
                folder.delete(piece.path());
            }
        }
        if (segment.sound != null) {
            folder.delete(segment.sound.path());
        }
    }

    /** The list of all renditions; until the end, what was measured is no more than the least. */
    private String master(List<MediaPlaylist> lists, MediaPlaylist soundList) {
        List<MasterPlaylist.Variant> variants = new ArrayList<>();
        for (int i = 0; i < outputs.size(); i++) {
            Announced rendition = announced.get(i);
            long measured = lists.get(i).peakBandwidth(target);
            rendition.peak = finished ? measured : Math.max(rendition.peak, measured);
            int[] shown = meaning.shownSize(outputs.get(i).width(), outputs.get(i).height());
            if (rendition.codecs != null) {
                variants.add(new MasterPlaylist.Variant(outputs.get(i).size(), codecs(i), shown[0], shown[1],
                        PictureRate.of(outputs.get(i).frameRate(), rendition.fastest), rendition.peak,
                        lists.get(i).averageBandwidth()));
            }
        }
        if (soundList == null) {
            return MasterPlaylist.text(variants, null);
        }
        long average = soundList.averageBandwidth();
        long measured = soundList.peakBandwidth(target);
        soundPeak = finished ? measured : Math.max(soundPeak, Math.max(measured, Math.round(HEADROOM * average)));
        return MasterPlaylist.text(variants, new MasterPlaylist.Sound(soundCodecs, channels, soundPeak, average));
    }
}
