package com.kelvane.media.tool.live;

import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.output.Hls;
import com.kelvane.media.tool.output.MediaPlaylist;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Text;
import java.io.BufferedOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Deque;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Objects;

/**
 * The lists of all renditions' segments. A segment is listed in all of them at once; where one has none of its own, as the
 * machine had no time for it, the next smaller one's stands in. Renditions hand in their segments from threads of their own.
 */
final class Publication {
    private static final int GRACE = 2;            // segments that stay when they are no longer listed
    private static final int BUFFER = 1 << 16;     // bytes
    private static final double HEADROOM = 1.25;   // of the bit rate that is announced, over the one that is aimed at
    private static final int SOUND_BITRATE = 192_000; // that is announced, in bits per second

    private final List<RenditionOutput> outputs;
    private final List<Integer> bitrates;
    private final LiveFolder folder;
    private final int segmentSeconds;
    private final double window;
    private final LiveFigures figures;
    private final List<Map<String, byte[]>> initialisations = new ArrayList<>(); // of each rendition, by name
    private final Deque<Segment> coming = new ArrayDeque<>();
    private final Deque<Segment> listed = new ArrayDeque<>();
    private final Deque<Segment> leaving = new ArrayDeque<>();
    private PictureMeaning meaning;
    private byte[] sound;
    private int announced; // renditions in the list of renditions
    private int parts;
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
        this.bitrates = bitrates;
        this.folder = folder;
        this.segmentSeconds = segmentSeconds;
        this.window = window;
        this.figures = figures;
        for (RenditionOutput output : outputs) {
            folder.makeFolder(output.size());
            initialisations.add(new HashMap<>());
        }
    }

    /** @param soundConfiguration the AudioSpecificConfig, empty without sound */
    synchronized void source(PictureMeaning shown, byte[] soundConfiguration) {
        meaning = shown;
        sound = soundConfiguration;
    }

    /**
     * A segment is begun.
     *
     * @param arrival when its first picture came
     * @param begins whether something else than times changes with it
     * @param made how many renditions have it, counted from the smallest
     */
    synchronized void begin(int number, long arrival, boolean begins, int made) {
        Segment segment = new Segment(number, arrival, begins, outputs.size());
        segment.awaited.set(outputs.size() - made, outputs.size());
        coming.add(segment);
    }

    /** Takes one rendition's segments. */
    synchronized SegmentReceiver receiver(int rendition) {
        return new Receiver(rendition);
    }

    /** Makes the lists complete, with what there is. Returns whether there is anything to play. */
    synchronized boolean finish() throws IOException {
        finished = true;
        coming.forEach(segment -> segment.awaited.clear());
        publish();
        while (!leaving.isEmpty()) {
            remove(leaving.poll());
        }
        return !listed.isEmpty();
    }

    private final class Receiver implements SegmentReceiver {
        private final int rendition;
        private final String part; // name of the file that is not complete
        private String initialisation;

        Receiver(int rendition) {
            this.rendition = rendition;
            part = outputs.get(rendition).size() + "/.segment-" + parts++;
        }

        @Override
        public void initialised(byte[] bytes) throws IOException {
            if (bytes.length == 0) {
                return;
            }
            synchronized (Publication.this) {
                Map<String, byte[]> known = initialisations.get(rendition);
                initialisation = known.entrySet().stream().filter(entry -> Arrays.equals(entry.getValue(), bytes))
                        .map(Map.Entry::getKey).findAny().orElse(null);
                if (initialisation == null) {
                    String name = known.isEmpty() ? Hls.INITIALISATION : "init-" + known.size() + ".mp4";
                    initialisation = outputs.get(rendition).size() + "/" + name;
                    folder.write(initialisation, bytes);
                    known.put(initialisation, bytes);
                }
            }
        }

        @Override
        public OutputStream begin() throws IOException {
            return new BufferedOutputStream(folder.begin(part), BUFFER);
        }

        @Override
        public void finished(int number, double seconds) throws IOException {
            String name = outputs.get(rendition).size() + "/" + Text.format(Hls.SEGMENT, number);
            long size = folder.finish(part, name);
            synchronized (Publication.this) {
                for (Segment waiting : coming) {
                    if (waiting.number == number) {
                        waiting.pieces[rendition] = new Segment.Piece(name, initialisation, seconds, size);
                        waiting.awaited.clear(rendition);
                    }
                }
                publish();
            }
        }

        @Override
        public void failed(int number) {
            synchronized (Publication.this) {
                coming.stream().filter(segment -> segment.number == number)
                        .forEach(segment -> segment.awaited.clear(rendition));
                try {
                    publish();
                } catch (IOException unwritable) {
                    figures.note("lists", "playlists could not be written (%s)", Failure.reason(unwritable));
                }
            }
        }

        @Override
        public void ended(String problem) {
            folder.discard(part);
            if (problem != null) {
                figures.note("segments", "%s: segments could not be written (%s)", outputs.get(rendition).size(), problem);
            }
        }
    }

    private void publish() throws IOException {
        boolean changed = finished;
        while (!coming.isEmpty() && coming.peek().awaited.isEmpty()) {
            Segment segment = coming.poll();
            if (segment.listed(0) != null) {
                listed.add(segment);
                figures.listed(segment.arrival);
                changed = true;
            }
        }
        if (!changed || listed.isEmpty()) {
            return;
        }
        double seconds = listed.stream().mapToDouble(segment -> segment.listed(0).seconds()).sum();
        while (window > 0 && seconds - listed.peek().listed(0).seconds() >= window - 0.001) {
            Segment left = listed.poll();
            seconds -= left.listed(0).seconds();
            leaving.add(left);
            gone++;
            goneBegins += left.begins ? 1 : 0;
        }
        LivePlaylist.Kind kind = finished ? LivePlaylist.Kind.FINISHED : window > 0 ? LivePlaylist.Kind.SLIDING
                : LivePlaylist.Kind.GROWING;
        int target = (int) Math.max(segmentSeconds + 1, Math.round(listed.stream()
                .flatMap(segment -> Arrays.stream(segment.pieces)).filter(Objects::nonNull).mapToDouble(Segment.Piece::seconds).max()
                .orElse(0)));
        for (int i = 0; i < outputs.size(); i++) {
            int rendition = i;
            List<LivePlaylist.Entry> entries = listed.stream().map(segment -> entry(segment, rendition)).toList();
            folder.write(outputs.get(i).size() + "/" + Hls.PLAYLIST, LivePlaylist.text(kind, target, gone, goneBegins, entries));
        }
        int known = (int) initialisations.stream().filter(names -> !names.isEmpty()).count();
        if (finished || known != announced) {
            announced = known;
            writeMaster();
        }
        figures.window(gone, listed.size(), seconds);
        while (leaving.size() > GRACE) {
            remove(leaving.poll());
        }
    }

    private LivePlaylist.Entry entry(Segment segment, int rendition) {
        Segment.Piece piece = segment.listed(rendition);
        String own = outputs.get(rendition).size() + "/";
        return new LivePlaylist.Entry(relative(piece.name(), own), relative(piece.initialisation(), own), piece.seconds(),
                segment.date, segment.begins);
    }

    private static String relative(String name, String folder) {
        return name.startsWith(folder) ? name.substring(folder.length()) : "../" + name;
    }

    private void remove(Segment segment) throws IOException {
        for (Segment.Piece piece : segment.pieces) {
            if (piece != null) {
                folder.delete(piece.name());
            }
        }
    }

    private void writeMaster() throws IOException {
        List<Hls.Variant> variants = new ArrayList<>();
        for (int i = 0; i < outputs.size(); i++) {
            if (initialisations.get(i).isEmpty()) {
                continue;
            }
            RenditionOutput output = outputs.get(i);
            int rendition = i;
            List<Double> seconds = new ArrayList<>(listed.stream().map(segment -> segment.listed(rendition).seconds()).toList());
            List<Long> sizes = new ArrayList<>(listed.stream().map(segment -> segment.listed(rendition).size()).toList());
            if (!finished) { // those to come count as well
                seconds.add((double) segmentSeconds);
                sizes.add((long) (segmentSeconds * (HEADROOM * bitrates.get(i) + (sound.length == 0 ? 0 : SOUND_BITRATE)) / 8));
            }
            int[] shown = meaning.shownSize(output.width(), output.height());
            variants.add(new Hls.Variant(output, new MediaPlaylist(folder.path(output.size()), seconds, sizes, segmentSeconds),
                    shown[0], shown[1]));
        }
        folder.write(Hls.MASTER, Hls.master(variants, null, sound, 0));
    }
}
