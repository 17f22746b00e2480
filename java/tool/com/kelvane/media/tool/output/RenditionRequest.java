package com.kelvane.media.tool.output;

import com.kelvane.media.Rendition;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.shell.Failure;
import java.util.List;
import java.util.Optional;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.TypeConversionException;

/**
 * A rendition as it was asked for.
 *
 * @param settings as far as they were given
 * @param rateGiven whether the frame rate was, otherwise it follows from the source
 */
public record RenditionRequest(Rendition settings, boolean rateGiven) {
    private static final int LARGEST_FRAME_RATE = 60;
    private static final Pattern SYNTAX = Pattern.compile("(\\d{1,6})x(\\d{1,6})@([^,]*)((?:,[^,]+)*)");
    private static final Pattern BITRATE = Pattern.compile("(\\d{1,9}(?:\\.\\d{1,6})?)([kM]?)");

    /** Reads WIDTHxHEIGHT@BITRATE[,OPTION]... */
    public static final class Converter implements ITypeConverter<RenditionRequest> {
        @Override
        public RenditionRequest convert(String text) {
            try {
                return read(text);
            } catch (TypeConversionException | IllegalArgumentException wrong) {
                throw new TypeConversionException(text + ": " + wrong.getMessage());
            }
        }

        private static RenditionRequest read(String text) {
            Matcher parts = SYNTAX.matcher(text);
            check(parts.matches(), "expected WIDTHxHEIGHT@BITRATE, like 1280x720@2500k, with options behind commas");
            Rendition rendition = Rendition.of(Integer.parseInt(parts.group(1)), Integer.parseInt(parts.group(2)))
                    .bitrate(bitrate(parts.group(3)));
            boolean rateGiven = false;
            for (String option : parts.group(4).isEmpty() ? new String[0] : parts.group(4).substring(1).split(",")) {
                String[] pair = option.split("=", 2);
                String value = pair.length == 2 ? pair[1] : "";
                if (pair[0].equals("fps")) {
                    rendition = rendition.frameRate(number(value, "fps"));
                    rateGiven = true;
                } else if (pair[0].equals("key")) {
                    rendition = rendition.keyInterval(number(value, "key"));
                } else if (pair[0].equals("qp")) {
                    check(value.matches("\\d+-\\d+"), "qp takes two quantisers, like qp=20-40");
                    String[] range = value.split("-");
                    rendition = rendition.quantisers(number(range[0], "qp"), number(range[1], "qp"));
                } else if (pair[0].equals("mode")) {
                    check(value.equals("quality") || value.equals("bitrate"), "mode is quality or bitrate");
                    rendition = rendition.rateControl(value.equals("quality") ? Rendition.RateControl.QUALITY
                            : Rendition.RateControl.BITRATE);
                } else {
                    check(option.equals("cabac"), "unknown option " + option
                            + "; there are fps=N, key=N, qp=MIN-MAX, mode=quality and cabac");
                    rendition = rendition.entropyCoding(Rendition.EntropyCoding.CABAC);
                }
            }
            return new RenditionRequest(rendition, rateGiven);
        }

        /** Bits per second from a number with k or M behind it. */
        public static int bitrate(String text) {
            Matcher parts = BITRATE.matcher(text);
            check(parts.matches(), "a bit rate is a number of bits per second, like 2500k");
            double bitrate = Double.parseDouble(parts.group(1))
                    * (parts.group(2).equals("k") ? 1e3 : parts.group(2).equals("M") ? 1e6 : 1);
            check(bitrate >= 1000 && bitrate <= 288e6, "the bit rate must be from 1k to 288M");
            return (int) bitrate;
        }

        private static int number(String text, String name) {
            check(text.matches("0*[1-9]\\d{0,8}"), name + " takes whole numbers from 1");
            return Integer.parseInt(text);
        }

        private static void check(boolean right, String message) {
            if (!right) {
                throw new TypeConversionException(message);
            }
        }
    }

    /** Width and height, as users write them. */
    public String size() {
        return settings.width() + "x" + settings.height();
    }

    /** What is made of a source when nothing is asked for: the largest usual sizes that fit into it. */
    public static List<RenditionRequest> ladder(VideoTrack source) {
        int shortSide = Math.min(source.width(), source.height());
        double aspect = (double) Math.max(source.width(), source.height()) / shortSide;
        record Rung(int shortSide, int kilobits) {
        }
        List<RenditionRequest> ladder = Stream.of(new Rung(1080, 4500), new Rung(720, 2500), new Rung(480, 1200),
                        new Rung(360, 800), new Rung(240, 400), new Rung(144, 150))
                .filter(rung -> rung.shortSide <= shortSide)
                .map(rung -> {
                    int longSide = 2 * (int) Math.round(rung.shortSide * aspect / 2);
                    return source.width() >= source.height() ? plain(longSide, rung.shortSide, rung.kilobits)
                            : plain(rung.shortSide, longSide, rung.kilobits);
                })
                .flatMap(Optional::stream).limit(3).toList();
        return !ladder.isEmpty() ? ladder
                : List.of(plain(source.width() / 2 * 2, source.height() / 2 * 2, 100).orElseThrow(() ->
                        new Failure("%s is %dx%d, for which there is no usual size that OpenH264 encodes; ask for one with -r",
                                source.path(), source.width(), source.height())));
    }

    /** Nothing when the size cannot be encoded. */
    private static Optional<RenditionRequest> plain(int width, int height, int kilobits) {
        try {
            return Optional.of(new RenditionRequest(Rendition.of(width, height).bitrate(kilobits * 1000), false));
        } catch (IllegalArgumentException notEncodable) {
            return Optional.empty();
        }
    }

    /** Pictures per second of the result: what was asked for, or the source's rate, halved while it is above 60. */
    public double pictureRate(double sourceRate) {
        double rate = sourceRate;
        while (!rateGiven && Math.round(rate) > LARGEST_FRAME_RATE) {
            rate /= 2;
        }
        return rateGiven ? Math.min(settings.frameRate(), sourceRate) : rate;
    }

    /** Fills in the defaults that follow from the source: its frame rate and a key frame every two seconds. */
    public Rendition completed(double sourceRate) {
        Rendition rendition = settings.frameRate((int) Math.max(1,
                Math.min(LARGEST_FRAME_RATE, Math.round(pictureRate(sourceRate)))));
        return rendition.keyInterval() > 0 ? rendition : rendition.keyInterval(2 * rendition.frameRate());
    }
}
