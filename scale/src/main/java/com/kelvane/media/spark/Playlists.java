package com.kelvane.media.spark;

import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Hls;
import com.kelvane.media.tool.output.MediaPlaylist;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/** Joins the parts of an input: writes the playlists, that of all renditions last. */
final class Playlists {
    private final Plan plan;
    private final List<Part> chunks;
    private final Part.Track sound; // or null
    private final Publisher publisher;

    /** @param parts all of them, in order */
    Playlists(Plan plan, List<Part> parts, Publisher publisher) {
        this.plan = plan;
        this.publisher = publisher;
        chunks = parts.stream().filter(part -> part.number() != Part.SOUND && !part.tracks().isEmpty()).toList();
        sound = parts.stream().filter(part -> part.number() == Part.SOUND && !part.tracks().isEmpty())
                .map(part -> part.tracks().get(0)).findFirst().orElse(null);
    }

    /** Writes them; returns the seconds of the pictures. */
    double write() throws IOException {
        if (chunks.isEmpty()) {
            throw new Failure("no picture could be decoded");
        }
        VideoTrack track = plan.video();
        Path local = Files.createTempDirectory("kelvane-playlists-");
        try {
            List<Hls.Variant> variants = new ArrayList<>();
            List<RenditionOutput> outputs = Ladder.of(track, plan.settings()).outputs();
            for (int i = 0; i < outputs.size(); i++) {
                RenditionOutput output = outputs.get(i);
                int[] shown = track.meaning().shownSize(output.width(), output.height());
                variants.add(new Hls.Variant(output, write(joined(i), local), shown[0], shown[1]));
            }
            MediaPlaylist heard = sound == null ? null : write(sound, local);
            Path master = local.resolve(Hls.MASTER);
            Hls.writeMaster(master, variants, heard, sound == null ? new byte[0] : sound.configuration(),
                    sound == null ? 0 : sound.channels());
            publisher.put(master, Hls.MASTER);
            return variants.get(0).playlist().seconds();
        } finally {
            delete(local);
        }
    }

    /** A rendition's segments of all chunks; each chunk ends when the next begins. */
    private Part.Track joined(int rendition) {
        Part.Track first = chunks.get(0).tracks().get(rendition);
        ArrayList<Part.Segment> segments = new ArrayList<>();
        for (int i = 0; i < chunks.size(); i++) {
            Part.Track track = chunks.get(i).tracks().get(rendition);
            if (!Arrays.equals(track.initialisation(), first.initialisation())) {
                throw new Failure("%s: the initialisation segment of %s is not that of the other chunks",
                        plan.name(chunks.get(i).number()), track.folder());
            }
            double begin = chunks.get(i).begin() / 1000.0;
            for (Part.Segment segment : track.segments()) {
                boolean last = segment == track.segments().get(track.segments().size() - 1) && i + 1 < chunks.size();
                double seconds = last ? chunks.get(i + 1).begin() / 1000.0 - begin : segment.seconds();
                segments.add(new Part.Segment(segment.name(), seconds, segment.bytes()));
                begin += segment.seconds();
            }
        }
        return new Part.Track(first.folder(), first.initialisation(), first.configuration(), first.channels(), segments);
    }

    private MediaPlaylist write(Part.Track track, Path local) throws IOException {
        int target = (int) track.segments().stream().mapToLong(segment -> Math.round(segment.seconds())).max().orElse(1);
        List<String> lines = new ArrayList<>(List.of("#EXTM3U", "#EXT-X-VERSION:7", "#EXT-X-TARGETDURATION:"
                + Math.max(1, target), "#EXT-X-MEDIA-SEQUENCE:0", "#EXT-X-PLAYLIST-TYPE:VOD", "#EXT-X-INDEPENDENT-SEGMENTS",
                "#EXT-X-MAP:URI=\"" + Hls.INITIALISATION + "\""));
        for (Part.Segment segment : track.segments()) {
            lines.add(Text.format("#EXTINF:%.6f,", segment.seconds()));
            lines.add(segment.name());
        }
        lines.add("#EXT-X-ENDLIST");
        Path folder = Files.createDirectory(local.resolve(track.folder()));
        Files.write(folder.resolve(Hls.INITIALISATION), track.initialisation());
        publisher.put(track.initialisation(), track.folder() + "/" + Hls.INITIALISATION);
        publisher.put(lines, track.folder() + "/" + Hls.PLAYLIST);
        return new MediaPlaylist(folder, track.segments().stream().map(Part.Segment::seconds).toList(),
                track.segments().stream().map(Part.Segment::bytes).toList(), Math.max(1, target));
    }

    private static void delete(Path folder) throws IOException {
        try (var files = Files.walk(folder)) {
            for (Path file : files.sorted(java.util.Comparator.reverseOrder()).toList()) {
                Files.delete(file);
            }
        }
    }
}
