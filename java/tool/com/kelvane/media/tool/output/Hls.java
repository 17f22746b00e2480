package com.kelvane.media.tool.output;

import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;

/** An HLS ladder: a folder of segments for each rendition and for the sound, and a playlist of them all. */
public final class Hls {
    public static final String MASTER = "master.m3u8";
    /** Folder of the sound. */
    public static final String SOUND = "sound";
    public static final String PLAYLIST = "media.m3u8";
    public static final String INITIALISATION = "init.mp4";
    public static final String SEGMENT = "%d.m4s";

    /** FFmpeg's further options for segments that do not begin with the result, without the index that it gets wrong there. */
    static final List<String> PART = List.of("-hls_ts_options", "movflags=+frag_discont+skip_sidx");

    private Hls() {
    }

    /** FFmpeg's options for segments of one track in a folder, which has to be there. */
    static List<String> options(String folder, int segmentSeconds) {
        return List.of("-f", "hls", "-hls_time", Integer.toString(segmentSeconds), "-hls_list_size", "0",
                "-hls_playlist_type", "vod", "-hls_flags", "independent_segments", "-hls_segment_type", "fmp4",
                "-hls_fmp4_init_filename", INITIALISATION, "-hls_segment_filename", folder + "/" + SEGMENT,
                folder + "/" + PLAYLIST);
    }

    /** Whether a folder holds nothing but what such a run makes, so that another may replace it. */
    public static boolean isOurs(Path folder) throws IOException {
        if (!Files.isDirectory(folder, LinkOption.NOFOLLOW_LINKS)) {
            return false;
        }
        try (Stream<Path> files = Files.list(folder)) {
            return files.map(file -> file.getFileName().toString())
                    .allMatch(name -> name.matches("\\.?media\\.m3u8|\\.?init(-\\d+)?\\.mp4|\\d+\\.m4s|\\.segment-\\d+"));
        }
    }

    /**
     * What the master playlist tells of a rendition.
     *
     * @param shownWidth of the pictures as they are to be shown
     */
    public record Variant(RenditionOutput output, MediaPlaylist playlist, int shownWidth, int shownHeight) {
    }

    /** Writes the playlist of all renditions; see {@link #master}. */
    public static void writeMaster(Path file, List<Variant> variants, MediaPlaylist sound, byte[] soundConfiguration,
                                   int channels) throws IOException {
        Files.writeString(file, master(variants, sound, soundConfiguration, channels));
    }

    /**
     * The playlist of all renditions.
     *
     * @param sound its segments, or null when there is none, or none apart from the pictures
     * @param soundConfiguration the AudioSpecificConfig, empty without sound
     */
    public static String master(List<Variant> variants, MediaPlaylist sound, byte[] soundConfiguration, int channels)
            throws IOException {
        List<String> lines = new ArrayList<>(List.of("#EXTM3U", "#EXT-X-VERSION:7", "#EXT-X-INDEPENDENT-SEGMENTS"));
        if (sound != null) {
            lines.add(Text.format("#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"%s\",NAME=\"%1$s\",DEFAULT=YES,AUTOSELECT=YES,"
                    + "CHANNELS=\"%d\",URI=\"%1$s/%s\"", SOUND, channels, PLAYLIST));
        }
        for (Variant variant : variants) {
            long peak = variant.playlist.peakBandwidth() + (sound == null ? 0 : sound.peakBandwidth());
            long average = variant.playlist.averageBandwidth() + (sound == null ? 0 : sound.averageBandwidth());
            String codecs = videoCodec(variant.playlist.folder().resolve(INITIALISATION))
                    + (soundConfiguration.length == 0 && sound == null ? "" : "," + soundCodec(soundConfiguration));
            lines.add(Text.format("#EXT-X-STREAM-INF:BANDWIDTH=%d,AVERAGE-BANDWIDTH=%d,CODECS=\"%s\",RESOLUTION=%dx%d,"
                    + "FRAME-RATE=%.3f%s", peak, average, codecs, variant.shownWidth, variant.shownHeight,
                    variant.output.frameRate(), sound == null ? "" : ",AUDIO=\"" + SOUND + "\""));
            lines.add(variant.output.size() + "/" + PLAYLIST);
        }
        return String.join("\n", lines) + "\n";
    }

    /** What RFC 6381 calls the H.264 of an initialisation segment: profile, constraints and level of its avcC box. */
    static String videoCodec(Path initialisation) throws IOException {
        byte[] bytes = Files.readAllBytes(initialisation);
        int box = new String(bytes, StandardCharsets.ISO_8859_1).indexOf("avcC");
        if (box < 0 || box + 8 > bytes.length) {
            throw new IOException(initialisation + " does not describe H.264");
        }
        return Text.format("avc1.%02x%02x%02x", bytes[box + 5], bytes[box + 6], bytes[box + 7]);
    }

    private static String soundCodec(byte[] configuration) {
        int objectType = configuration.length == 0 ? 2 : (configuration[0] & 0xff) >> 3; // 2: AAC-LC
        return "mp4a.40." + (objectType < 31 || configuration.length < 2 ? objectType
                : 32 + ((configuration[0] & 7) << 3 | (configuration[1] & 0xff) >> 5));
    }
}
