package com.kelvane.media.tool.output;

import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder.RenditionStatistics;
import com.kelvane.media.Transcoder.Statistics;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.JsonLines;
import com.kelvane.media.tool.shell.Text;
import java.time.Duration;
import java.util.List;

/** What a finished transcoding prints. */
public final class Summary {
    private Summary() {
    }

    /** A table of the renditions. */
    public static void table(Statistics statistics, double seconds, Comparison comparison) {
        line("");
        row("rendition", "pictures", "skipped", "failed", "kbit/s", "target", "PSNR-Y", "ms/picture");
        for (int i = 0; i < statistics.renditions().size(); i++) {
            RenditionStatistics rendition = statistics.renditions().get(i);
            row(rendition.rendition().width() + "x" + rendition.rendition().height(), rendition.pictures(), rendition.skipped(),
                    rendition.failed(), Text.format("%.1f", kilobitsPerSecond(rendition.bytes(), seconds)), target(rendition.rendition()),
                    comparison == null ? "-" : decibels(comparison.psnr(i)),
                    Text.format("%.2f", milliseconds(rendition)));
        }
        row("decoding", statistics.pictures(), "", "", "", "", "",
                Text.format("%.2f", milliseconds(statistics.decodeTime(), statistics.pictures())));
        line("");
    }

    /** What the source is. */
    public static void head(VideoTrack track) {
        line("%s: %dx%d, %s%.2f pictures a second", track.path(), track.width(), track.height(),
                track.seconds() > 0 ? Text.format("%.1f s, ", track.seconds()) : "", track.frameRate());
    }

    /**
     * What is to be said about the source in the end.
     *
     * @param pictures how many came out of the decoder
     * @param damage what is wrong with the file, or null
     * @param comparison null when there was to be none
     */
    public static void notes(int accessUnits, long pictures, String damage, Comparison comparison) {
        if (accessUnits > pictures) {
            line("damaged source: %d of %d access units gave no picture; the others were kept", accessUnits - pictures,
                    accessUnits);
        }
        if (comparison != null && comparison.damagedPictures() > 0) {
            line("damaged source: the decoder made up the lost parts of %d pictures", comparison.damagedPictures());
        }
        if (damage != null) {
            line("damaged source: %s; what could be read was kept", damage);
        }
        if (comparison != null && comparison.grid() == null) {
            line("the result could not be compared with the source, so there is no sheet of pictures");
        }
    }

    /** A rendition's figures for the contact sheet. */
    public static ContactSheet.Label label(String name, long bytes, double seconds, double psnr) {
        return new ContactSheet.Label(name,
                List.of(Text.format("%.0f kbit/s", kilobitsPerSecond(bytes, seconds)), "PSNR-Y " + decibels(psnr)));
    }

    public static double kilobitsPerSecond(long bytes, double seconds) {
        return bytes * 8 / seconds / 1000;
    }

    /** Milliseconds for each of so many pictures. */
    public static double milliseconds(Duration time, long pictures) {
        return time.toNanos() / 1e6 / pictures;
    }

    /** Milliseconds for each picture that a rendition was given. */
    public static double milliseconds(RenditionStatistics done) {
        return milliseconds(done.encodeTime(), done.pictures() + done.skipped() + done.failed());
    }

    static String target(Rendition rendition) {
        return rendition.rateControl() == Rendition.RateControl.QUALITY ? "quality"
                : Text.format("%.1f", rendition.bitrate() / 1000.0);
    }

    static String decibels(double psnr) {
        return Double.isNaN(psnr) ? "-" : Double.isInfinite(psnr) ? "identical" : Text.format("%.2f dB", psnr);
    }

    private static void row(Object... cells) {
        line("%-11s %9s %8s %7s %9s %9s %10s %11s", cells);
    }

    public static void line(String format, Object... values) {
        String text = Text.format(format, values).stripTrailing();
        if (!JsonLines.isOn()) {
            Caller.OUTPUT.println(text);
        } else if (!text.isEmpty()) {
            JsonLines.print("message", json -> json.writeStringField("text", text));
        }
    }
}
