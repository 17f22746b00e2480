package com.kelvane.media.tool;

import java.util.List;

/** What a finished transcoding prints. */
final class Summary {
    private Summary() {
    }

    static void print(AccessUnits source, VideoTrack track, Transcoding transcoding, List<RenditionOutput> outputs,
                      double seconds, Comparison comparison) {
        line("");
        row("rendition", "pictures", "skipped", "kbit/s", "target", "PSNR-Y", "ms/picture");
        for (int i = 0; i < outputs.size(); i++) {
            RenditionOutput output = outputs.get(i);
            row(output.rendition().size(), String.valueOf(output.pictures()), String.valueOf(output.skipped()),
                    String.format("%.1f", output.kilobitsPerSecond(seconds)), target(output.rendition()),
                    decibels(comparison.psnr(i)), String.format("%.2f%s", output.millisecondsPerPicture(), i == 0 ? "*" : " "));
        }
        line("* with the time that decoding the source takes");
        line("");
        int pictures = transcoding.times().count();
        line("%d pictures, %.1f s of video, in %.2f s: %.0f pictures a second, %.1f times real time; %.2f s of CPU in the"
                + " transcoding thread", pictures, seconds, transcoding.seconds(), pictures / transcoding.seconds(),
                seconds / transcoding.seconds(), transcoding.cpuSeconds());
        notes(source, track, pictures, comparison);
    }

    /** What the source is. */
    static void head(AccessUnits source, VideoTrack track) {
        line("%s: %dx%d, %d access units, %.2f pictures a second", track.path(), track.width(), track.height(), source.count(),
                track.frameRate());
    }

    /**
     * What is to be said about the source in the end.
     *
     * @param pictures how many came out of the decoder
     */
    static void notes(AccessUnits source, VideoTrack track, int pictures, Comparison comparison) {
        int missing = source.count() - pictures;
        int held = Math.min(missing, track.reorderDepth());
        if (held > 0) {
            line("%d of %d pictures stayed in the decoder, which holds back up to %d to bring them into display order", held,
                    source.count(), track.reorderDepth());
        }
        if (missing > held) {
            line("damaged source: %d of %d access units gave no picture; the others were kept", missing - held, source.count());
        }
        if (comparison.damagedPictures() > 0) {
            line("damaged source: the decoder made up the lost parts of %d pictures", comparison.damagedPictures());
        }
        if (source.damage() != null) {
            line("damaged source: %s; what could be read was kept", source.damage());
        }
        if (!track.hasPlainPictures()) {
            line("the source's pictures are %s and the codecs take all for 8-bit 4:2:0: colours are wrong",
                    track.pixelFormat());
        }
        if (comparison.grid() == null) {
            line("the result could not be compared with the source, so there is no sheet of pictures");
        }
    }

    /** A rendition's figures for the contact sheet. */
    static ContactSheet.Label label(RenditionOutput output, double seconds, double psnr) {
        return new ContactSheet.Label(output.rendition().size(),
                List.of(String.format("%.0f kbit/s", output.kilobitsPerSecond(seconds)), "PSNR-Y " + decibels(psnr)));
    }

    private static String target(Rendition rendition) {
        return rendition.quality() ? "quality" : String.format("%.1f", rendition.bitrate() / 1000.0);
    }

    static String decibels(double psnr) {
        return Double.isNaN(psnr) ? "-" : Double.isInfinite(psnr) ? "identical" : String.format("%.2f dB", psnr);
    }

    private static void row(Object... cells) {
        line("%-11s %9s %8s %9s %9s %10s %11s", cells);
    }

    static void line(String format, Object... values) {
        Caller.OUTPUT.println(String.format(format, values).stripTrailing());
    }
}
