package com.kelvane.media.tool.packager;

import com.kelvane.media.tool.packager.LadderWriter.Store;
import com.kelvane.media.tool.packager.LadderWriter.Track;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;

/** Writes what leads players to the segments of a ladder that is complete. */
public final class VodPlaylists {
    /**
     * A rendition.
     *
     * @param shownSize its width and height as they are to be shown
     * @param frameRate pictures a second, as they were announced
     */
    public record Rendition(Track track, int[] shownSize, double frameRate) {
    }

    private static final double SAME = 1e-5; // seconds

    private VodPlaylists() {
    }

    /**
     * Writes them, that of all renditions last.
     *
     * @param sound null when there is none
     */
    public static void write(List<Rendition> renditions, Track sound, int channels, Store store) throws IOException {
        boolean together = sound == null || Math.abs(begin(sound) - begin(renditions.get(0).track)) < SAME;
        List<MasterPlaylist.Variant> variants = new ArrayList<>();
        for (Rendition rendition : renditions) {
            Track track = rendition.track;
            write(track, together, store);
            variants.add(new MasterPlaylist.Variant(track.folder(), track.codecs(), rendition.shownSize,
                    PictureRate.of(rendition.frameRate, track.fastest()), track.segments()));
        }
        if (sound != null) {
            write(sound, together, store);
        }
        store.put(Names.MASTER, MasterPlaylist.text(variants, sound == null ? null
                : new MasterPlaylist.Sound(sound.codecs(), channels, sound.segments())).getBytes(StandardCharsets.UTF_8));
    }

    private static double begin(Track track) {
        return track.segments().entries().get(0).begin();
    }

    private static void write(Track track, boolean together, Store store) throws IOException {
        store.put(track.folder() + "/" + Names.INITIALISATION, track.initialisation());
        String text = (together ? track.segments() : track.segments().dated()).text();
        store.put(track.folder() + "/" + Names.PLAYLIST, text.getBytes(StandardCharsets.UTF_8));
    }
}
