package com.kelvane.media.tool.output;

import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder.RenditionStatistics;
import com.kelvane.media.Transcoder.Statistics;
import com.kelvane.media.tool.input.AccessUnits;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.shell.Caller;
import java.time.Duration;
import java.util.List;

/** What a finished transcoding prints. */
public final class Summary {
    private Summary() {
    }

    /** A table of the renditions. */
    public static void table(List<RenditionOutput> outputs, Statistics statistics, double seconds, Comparison comparison) {
        line("");
        row("rendition", "pictures", "skipped", "kbit/s", "target", "PSNR-Y", "ms/picture");
        for (int i = 0; i < outputs.size(); i++) {
            RenditionStatistics rendition = statistics.renditions().get(i);
            row(outputs.get(i).size(), rendition.pictures(), rendition.skipped(),
                    String.format("%.1f", outputs.get(i).kilobitsPerSecond(seconds)), target(rendition.rendition()),
                    decibels(comparison.psnr(i)),
                    String.format("%.2f", milliseconds(rendition.encodeTime(), statistics.pictures())));
        }
        row("decoding", statistics.pictures(), "", "", "", "",
                String.format("%.2f", milliseconds(statistics.decodeTime(), statistics.pictures())));
        line("");
    }

    /** What the source is. */
    public static void head(AccessUnits source, VideoTrack track) {
        line("%s: %dx%d, %d access units, %.2f pictures a second", track.path(), track.width(), track.height(), source.count(),
                track.frameRate());
    }

    /**
     * What is to be said about the source in the end.
     *
     * @param pictures how many came out of the decoder
     */
    public static void notes(AccessUnits source, long pictures, Comparison comparison) {
        if (source.count() > pictures) {
            line("damaged source: %d of %d access units gave no picture; the others were kept", source.count() - pictures,
                    source.count());
        }
        if (comparison.damagedPictures() > 0) {
            line("damaged source: the decoder made up the lost parts of %d pictures", comparison.damagedPictures());
        }
        if (source.damage() != null) {
            line("damaged source: %s; what could be read was kept", source.damage());
        }
        if (comparison.grid() == null) {
            line("the result could not be compared with the source, so there is no sheet of pictures");
        }
    }

    /** A rendition's figures for the contact sheet. */
    public static ContactSheet.Label label(String name, RenditionOutput output, double seconds, double psnr) {
        return new ContactSheet.Label(name,
                List.of(String.format("%.0f kbit/s", output.kilobitsPerSecond(seconds)), "PSNR-Y " + decibels(psnr)));
    }

    /** Milliseconds for each of so many pictures. */
    public static double milliseconds(Duration time, long pictures) {
        return time.toNanos() / 1e6 / pictures;
    }

    private static String target(Rendition rendition) {
        return rendition.rateControl() == Rendition.RateControl.QUALITY ? "quality"
                : String.format("%.1f", rendition.bitrate() / 1000.0);
    }

    public static String decibels(double psnr) {
        return Double.isNaN(psnr) ? "-" : Double.isInfinite(psnr) ? "identical" : String.format("%.2f dB", psnr);
    }

    private static void row(Object... cells) {
        line("%-11s %9s %8s %9s %9s %10s %11s", cells);
    }

    public static void line(String format, Object... values) {
        Caller.OUTPUT.println(String.format(format, values).stripTrailing());
    }
}
