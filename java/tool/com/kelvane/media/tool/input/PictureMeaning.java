package com.kelvane.media.tool.input;

import com.kelvane.media.MediaTrack;
import java.util.Map;

/** How pictures are to be shown, beyond their samples: turned, with pixels that are not square, in which colours. */
public final class PictureMeaning {
    /** The numbers that H.264 gives to what FFprobe names. */
    private static final Map<String, Integer> PRIMARIES = Map.ofEntries(Map.entry("bt709", 1), Map.entry("bt470m", 4),
            Map.entry("bt470bg", 5), Map.entry("smpte170m", 6), Map.entry("smpte240m", 7), Map.entry("film", 8),
            Map.entry("bt2020", 9), Map.entry("smpte428", 10), Map.entry("smpte431", 11), Map.entry("smpte432", 12));
    private static final Map<String, Integer> TRANSFERS = Map.ofEntries(Map.entry("bt709", 1), Map.entry("bt470m", 4),
            Map.entry("gamma22", 4), Map.entry("bt470bg", 5), Map.entry("gamma28", 5), Map.entry("smpte170m", 6),
            Map.entry("smpte240m", 7), Map.entry("linear", 8), Map.entry("log100", 9), Map.entry("log316", 10),
            Map.entry("iec61966-2-4", 11), Map.entry("bt1361e", 12), Map.entry("iec61966-2-1", 13),
            Map.entry("bt2020-10", 14), Map.entry("bt2020-12", 15), Map.entry("smpte2084", 16), Map.entry("smpte428", 17),
            Map.entry("arib-std-b67", 18));
    private static final Map<String, Integer> MATRICES = Map.ofEntries(Map.entry("gbr", 0), Map.entry("bt709", 1),
            Map.entry("fcc", 4), Map.entry("bt470bg", 5), Map.entry("smpte170m", 6), Map.entry("smpte240m", 7),
            Map.entry("ycgco", 8), Map.entry("bt2020nc", 9), Map.entry("bt2020c", 10));

    private final int width;
    private final int height;
    private final long pixelWidth;
    private final long pixelHeight;
    private final int rotation; // degrees
    private final Boolean range; // whether it is the full one; null when that is not known
    private final int primaries; // 0 when they are not known, as the others
    private final int transfer;
    private final int matrix;

    /** @param video the track's entries by FFprobe's names */
    PictureMeaning(Map<String, String> video) {
        width = (int) MediaFile.number(video, "width");
        height = (int) MediaFile.number(video, "height");
        String[] ratio = video.getOrDefault("sample_aspect_ratio", "1:1").split(":");
        boolean known = ratio.length == 2 && !ratio[0].equals("0") && !ratio[1].equals("0");
        pixelWidth = known ? Long.parseLong(ratio[0]) : 1;
        pixelHeight = known ? Long.parseLong(ratio[1]) : 1;
        int turned = Math.floorMod((int) MediaFile.number(video, "tag:rotate"), 360);
        rotation = turned % 90 == 0 ? turned : 0;
        boolean full = "pc".equals(video.get("color_range")) || "yuvj420p".equals(video.get("pix_fmt"));
        range = full || "tv".equals(video.get("color_range")) ? (Boolean) full : null;
        primaries = PRIMARIES.getOrDefault(video.getOrDefault("color_primaries", ""), 0);
        transfer = TRANSFERS.getOrDefault(video.getOrDefault("color_transfer", ""), 0);
        matrix = MATRICES.getOrDefault(video.getOrDefault("color_space", ""), 0);
    }

    /** Degrees by which the pictures are to be turned, clockwise. */
    public int rotation() {
        return rotation;
    }

    /** Width and height in square pixels, the right way up, of pictures of a size that shows all of the source. */
    public int[] shownSize(int resultWidth, int resultHeight) {
        long[] pixel = pixel(resultWidth, resultHeight);
        int shownWidth = (int) Math.max(1, Math.round((double) resultWidth * pixel[0] / pixel[1]));
        return rotation % 180 == 0 ? new int[] {shownWidth, resultHeight} : new int[] {resultHeight, shownWidth};
    }

    /** A track of pictures of a size that show all of the source. */
    public MediaTrack track(int resultWidth, int resultHeight) {
        long[] pixel = pixel(resultWidth, resultHeight);
        MediaTrack track = MediaTrack.h264(resultWidth, resultHeight).rotation(rotation).colours(primaries, transfer, matrix);
        track = range == null ? track : track.fullRange(range);
        return pixelWidth == pixelHeight ? track : track.pixelAspect((int) pixel[0], (int) pixel[1]);
    }

    /** The shape of the pixels of pictures of a size; square where the source's are. */
    private long[] pixel(int resultWidth, int resultHeight) {
        return pixelWidth == pixelHeight ? new long[] {1, 1}
                : reduced(pixelWidth * width * resultHeight, pixelHeight * height * resultWidth);
    }

    /** Whether a stream of the pictures has to say something beyond what their encoder does. */
    public boolean isTold() {
        return pixelWidth != pixelHeight || range != null || primaries + transfer + matrix > 0;
    }

    /** A ratio in small numbers, which is as close to it as H.264 can say. */
    private static long[] reduced(long numerator, long denominator) {
        long a = numerator;
        long b = denominator;
        while (b != 0) {
            long rest = a % b;
            a = b;
            b = rest;
        }
        long divisor = a;
        long n = numerator / divisor;
        long d = denominator / divisor;
        while (n > 65_535 || d > 65_535) {
            n = Math.max(1, n / 2);
            d = Math.max(1, d / 2);
        }
        return new long[] {n, d};
    }
}
