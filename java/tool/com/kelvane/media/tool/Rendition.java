package com.kelvane.media.tool;

import com.kelvane.media.transform.codec.MIRVProcessor;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.TypeConversionException;

/**
 * The settings of one rendition; 0 leaves a setting to its default.
 *
 * @param bitrate bits per second
 * @param fps pictures per second, for the rate control
 * @param keyInterval pictures from one key frame to the next
 * @param quality rate control by quality instead of bit rate
 * @param cabac entropy coding by CABAC instead of CAVLC
 */
record Rendition(int width, int height, int bitrate, int fps, int keyInterval, int minQp, int maxQp, boolean quality,
                 boolean cabac) {
    // What OpenH264 accepts. It takes longer sides too, but no decoder has to.
    private static final int SMALLEST_SIDE = 16;
    private static final int LARGEST_SIDE = 8192;
    private static final int LARGEST_AREA = 4096 * 2304;
    private static final int LARGEST_BITRATE = 288_000_000;
    private static final int SMALLEST_BITRATE = 1000;

    private static final int LARGEST_FPS = 60;
    private static final int LARGEST_KEY_INTERVAL = 480;
    private static final Pattern SYNTAX = Pattern.compile("(\\d{1,6})x(\\d{1,6})@([^,]*)((?:,[^,]+)*)");
    private static final Pattern BITRATE = Pattern.compile("(\\d{1,9}(?:\\.\\d{1,6})?)([kM]?)");

    /** Reads WIDTHxHEIGHT@BITRATE[,OPTION]... */
    static final class Converter implements ITypeConverter<Rendition> {
        @Override
        public Rendition convert(String text) {
            try {
                return read(text);
            } catch (TypeConversionException wrong) {
                throw new TypeConversionException(text + ": " + wrong.getMessage());
            }
        }

        private static Rendition read(String text) {
            Matcher parts = SYNTAX.matcher(text);
            check(parts.matches(), "expected WIDTHxHEIGHT@BITRATE, like 1280x720@2500k, with options behind commas");
            int width = Integer.parseInt(parts.group(1));
            int height = Integer.parseInt(parts.group(2));
            check(width % 2 == 0 && height % 2 == 0, "width and height must be even");
            check(Math.min(width, height) >= SMALLEST_SIDE, "the smallest size is " + SMALLEST_SIDE + "x" + SMALLEST_SIDE);
            check(encodable(width, height), "the largest size is 4096x2304 or as many pixels in"
                    + " another shape, with sides up to " + LARGEST_SIDE);
            int bitrate = bitrate(parts.group(3));
            int fps = 0;
            int keyInterval = 0;
            int[] qp = {0, 0};
            boolean quality = false;
            boolean cabac = false;
            for (String option : parts.group(4).isEmpty() ? new String[0] : parts.group(4).substring(1).split(",")) {
                String[] pair = option.split("=", 2);
                String value = pair.length == 2 ? pair[1] : "";
                if (pair[0].equals("fps")) {
                    fps = number(value, LARGEST_FPS, "fps");
                } else if (pair[0].equals("key")) {
                    keyInterval = number(value, LARGEST_KEY_INTERVAL, "key");
                } else if (pair[0].equals("qp")) {
                    check(value.matches("\\d+-\\d+"), "qp takes two quantisers, like qp=20-40");
                    String[] range = value.split("-");
                    qp = new int[] {number(range[0], 51, "qp"), number(range[1], 51, "qp")};
                    check(qp[0] <= qp[1], "the smaller quantiser comes first, like qp=20-40");
                } else if (pair[0].equals("mode")) {
                    check(value.equals("quality") || value.equals("bitrate"), "mode is quality or bitrate");
                    quality = value.equals("quality");
                } else {
                    check(option.equals("cabac"), "unknown option " + option
                            + "; there are fps=N, key=N, qp=MIN-MAX, mode=quality and cabac");
                    cabac = true;
                }
            }
            return new Rendition(width, height, bitrate, fps, keyInterval, qp[0], qp[1], quality, cabac);
        }

        /** Bits per second from a number with k or M behind it. */
        static int bitrate(String text) {
            Matcher parts = BITRATE.matcher(text);
            check(parts.matches(), "a bit rate is a number of bits per second, like 2500k");
            double bitrate = Double.parseDouble(parts.group(1))
                    * (parts.group(2).equals("k") ? 1e3 : parts.group(2).equals("M") ? 1e6 : 1);
            check(bitrate >= SMALLEST_BITRATE && bitrate <= LARGEST_BITRATE, "the bit rate must be from 1k to 288M");
            return (int) bitrate;
        }

        private static int number(String text, int largest, String name) {
            int number = text.matches("\\d{1,9}") ? Integer.parseInt(text) : 0;
            check(number >= 1 && number <= largest, name + " takes whole numbers from 1 to " + largest);
            return number;
        }

        static void check(boolean right, String message) {
            if (!right) {
                throw new TypeConversionException(message);
            }
        }
    }

    /** The renditions made of a source when none are asked for: the largest usual sizes that fit into it. */
    static List<Rendition> ladder(VideoTrack source) {
        int shortSide = Math.min(source.width(), source.height());
        double aspect = (double) Math.max(source.width(), source.height()) / shortSide;
        record Rung(int shortSide, int kilobits) {
        }
        List<Rendition> ladder = Stream.of(new Rung(1080, 4500), new Rung(720, 2500), new Rung(480, 1200), new Rung(360, 800),
                        new Rung(240, 400), new Rung(144, 150))
                .filter(rung -> rung.shortSide <= shortSide)
                .map(rung -> {
                    int longSide = 2 * (int) Math.round(rung.shortSide * aspect / 2);
                    return source.width() >= source.height() ? plain(longSide, rung.shortSide, rung.kilobits)
                            : plain(rung.shortSide, longSide, rung.kilobits);
                })
                .filter(rendition -> encodable(rendition.width, rendition.height))
                .limit(3).toList();
        if (!ladder.isEmpty()) {
            return ladder;
        }
        int width = source.width() / 2 * 2;
        int height = source.height() / 2 * 2;
        if (!encodable(width, height)) {
            throw new Failure("%s is %dx%d, for which there is no usual size that OpenH264 encodes; ask for one with -r",
                    source.path(), source.width(), source.height());
        }
        return List.of(plain(width, height, 100));
    }

    static Rendition plain(int width, int height, int kilobits) {
        return new Rendition(width, height, kilobits * 1000, 0, 0, 0, 0, false, false);
    }

    private static boolean encodable(int width, int height) {
        return Math.min(width, height) >= SMALLEST_SIDE && Math.max(width, height) <= LARGEST_SIDE
                && (long) width * height <= LARGEST_AREA;
    }

    String size() {
        return width + "x" + height;
    }

    /** Fills in the defaults that follow from the source: its frame rate and a key frame every two seconds. */
    Rendition completed(double sourceFrameRate) {
        int rate = fps > 0 ? fps : (int) Math.max(1, Math.min(LARGEST_FPS, Math.round(sourceFrameRate)));
        return new Rendition(width, height, bitrate, rate, keyInterval > 0 ? keyInterval : 2 * rate, minQp, maxQp, quality,
                cabac);
    }

    /** Hands the settings to a transcoder. */
    void apply(int id, long transcoder) {
        apply(id, "videoWidth", width, transcoder);
        apply(id, "videoHeight", height, transcoder);
        apply(id, "videoBR", bitrate, transcoder);
        apply(id, "videoFPS", fps, transcoder);
        apply(id, "videoKey", keyInterval, transcoder);
        apply(id, "videoQPMin", minQp, transcoder);
        apply(id, "videoQPMax", maxQp, transcoder);
        apply(id, "videoEncMode", quality ? 1 : 0, transcoder);
        apply(id, "videoEncProfile", cabac ? 1 : 0, transcoder);
    }

    private static void apply(int id, String key, int value, long transcoder) {
        MIRVProcessor.apply(id, key, Integer.toString(value), transcoder);
    }
}
