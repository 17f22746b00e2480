package com.kelvane.media.tool.packager;

import com.kelvane.media.tool.shell.Text;
import java.util.ArrayList;
import java.util.List;

/** The list of all renditions and of the sound, which players begin with. */
public final class MasterPlaylist {
    /**
     * A rendition.
     *
     * @param folder of its playlist
     * @param codecs as RFC 6381 calls it
     * @param shownWidth of the pictures as they are to be shown, turned and with square pixels
     * @param peak bits per second, without the sound
     * @param average the same
     */
    public record Variant(String folder, String codecs, int shownWidth, int shownHeight, double frameRate, long peak, long average) {
        public Variant(String folder, String codecs, int[] shownSize, double frameRate, MediaPlaylist segments) {
            this(folder, codecs, shownSize[0], shownSize[1], frameRate, segments.peakBandwidth(), segments.averageBandwidth());
        }
    }

    /** The sound of all renditions. */
    public record Sound(String codecs, int channels, long peak, long average) {
        public Sound(String codecs, int channels, MediaPlaylist segments) {
            this(codecs, channels, segments.peakBandwidth(), segments.averageBandwidth());
        }
    }

    private MasterPlaylist() {
    }

    /** @param sound null when there is none */
    public static String text(List<Variant> variants, Sound sound) {
        List<String> lines = new ArrayList<>(List.of("#EXTM3U", "#EXT-X-VERSION:7", "#EXT-X-INDEPENDENT-SEGMENTS"));
        if (sound != null) {
            lines.add(Text.format("#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"%s\",NAME=\"%1$s\",DEFAULT=YES,AUTOSELECT=YES,"
                    + "CHANNELS=\"%d\",URI=\"%1$s/%s\"", Names.SOUND, sound.channels, Names.PLAYLIST));
        }
        for (Variant variant : variants) {
            lines.add(Text.format("#EXT-X-STREAM-INF:BANDWIDTH=%d,AVERAGE-BANDWIDTH=%d,CODECS=\"%s%s\",RESOLUTION=%dx%d,"
                    + "FRAME-RATE=%.3f%s", variant.peak + (sound == null ? 0 : sound.peak),
                    variant.average + (sound == null ? 0 : sound.average), variant.codecs, sound == null ? "" : "," + sound.codecs,
                    variant.shownWidth, variant.shownHeight, variant.frameRate,
                    sound == null ? "" : ",AUDIO=\"" + Names.SOUND + "\""));
            lines.add(variant.folder + "/" + Names.PLAYLIST);
        }
        return String.join("\n", lines) + "\n";
    }
}
