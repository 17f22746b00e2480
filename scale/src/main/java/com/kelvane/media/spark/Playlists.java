package com.kelvane.media.spark;

import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.packager.LadderWriter;
import com.kelvane.media.tool.packager.MediaPlaylist;
import com.kelvane.media.tool.packager.VodPlaylists;
import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
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
        List<VodPlaylists.Rendition> renditions = new ArrayList<>();
        for (RenditionOutput output : Ladder.of(track, plan.settings()).outputs()) {
            renditions.add(new VodPlaylists.Rendition(joined(renditions.size()),
                    track.meaning().shownSize(output.width(), output.height()), output.frameRate()));
        }
        VodPlaylists.write(renditions, sound == null ? null : track(sound, sound.fastest(), sound.segments()),
                sound == null ? 0 : sound.channels(), (name, contents) -> publisher.put(contents, name));
        return renditions.get(0).track().segments().seconds();
    }

    /** A rendition's segments of all chunks. */
    private LadderWriter.Track joined(int rendition) {
        Part.Track first = chunks.get(0).tracks().get(rendition);
        List<Part.Segment> segments = new ArrayList<>();
        double fastest = 0;
        for (Part chunk : chunks) {
            Part.Track track = chunk.tracks().get(rendition);
            if (!Arrays.equals(track.initialisation(), first.initialisation())) {
                throw new Failure("%s: the initialisation segment of %s is not that of the other chunks",
                        plan.name(chunk.number()), track.folder());
            }
            segments.addAll(track.segments());
            fastest = Math.max(fastest, track.fastest());
        }
        return track(first, fastest, segments);
    }

    private static LadderWriter.Track track(Part.Track track, double fastest, List<Part.Segment> segments) {
        return new LadderWriter.Track(track.folder(), track.initialisation(), track.codecs(), fastest,
                new MediaPlaylist(segments.stream().map(segment -> new MediaPlaylist.Entry(segment.name(), segment.begin(),
                        segment.seconds(), segment.bytes())).toList()));
    }
}
