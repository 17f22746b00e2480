package com.kelvane.media.test;

import com.kelvane.media.test.Mp4.Sample;
import com.kelvane.media.test.Mp4.Track;
import com.kelvane.media.test.Playlists.Entry;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.net.URI;
import java.net.http.HttpResponse;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Optional;
import java.util.Set;
import java.util.TreeSet;
import java.util.stream.Collectors;
import java.util.stream.IntStream;
import java.util.stream.Stream;

/**
 * Checks an HLS ladder of fragmented MP4, one track in each playlist, box by box against its playlists, and by what FFprobe
 * (of the tree that KELVANE_DIST names, or of the path) says of it. Arguments: folders of ladders, or addresses of master
 * playlists; in front of them {@code sound=FEWEST-MOST} for how many sound units each rendition has to have,
 * {@code turned=DEGREES} for how players are to turn the pictures, {@code holes} where the source itself had some,
 * and {@code apart} where the sound is cut without regard to the pictures. Prints
 * a line for each fault and exits with 1 if there are any.
 */
public final class LadderCheck {
    private static final double EXACT = 0.0015;       // what a playlist's three digits, and times in milliseconds, allow
    private static final double LARGEST_STEP = 0.05;  // seconds between the time lines of sound and pictures
    private static final int AAC_FRAME = 1024;        // samples
    private static final Map<String, String> AAC = Map.of("LC", "mp4a.40.2", "HE-AAC", "mp4a.40.5", "HE-AACv2", "mp4a.40.29");

    /** What a media playlist and its segments hold. */
    private static final class Rendition {
        final List<Entry> segments;
        final double target; // seconds
        final boolean isComplete;
        final List<Integer> sizes = new ArrayList<>();       // bytes of the segments
        final List<Double> begins = new ArrayList<>();       // seconds, of the segments
        final List<Double> pictureTimes = new ArrayList<>(); // of all pictures, in the order of their display
        final Set<String> codecs = new TreeSet<>();
        final Set<String> shown = new TreeSet<>();           // sizes, as players show the pictures
        double unit; // seconds of a sound unit; 0 for pictures
        int soundUnits;

        Rendition(URI address, String text) {
            segments = Playlists.entries(address, text);
            target = segments.stream().mapToDouble(segment -> segment.number("EXT-X-TARGETDURATION")).findFirst().orElse(0);
            isComplete = text.contains("#EXT-X-ENDLIST");
        }

        double seconds(int from, int to) {
            return segments.subList(from, to).stream().mapToDouble(segment -> segment.number("EXTINF")).sum();
        }

        double rate(int from, int to) {
            return 8.0 * sizes.subList(from, to).stream().mapToInt(Integer::intValue).sum() / seconds(from, to);
        }

        double average() {
            return rate(0, sizes.size());
        }

        /** The largest bit rate of segments in a row that take half to one and a half target durations. */
        double peak() {
            int count = sizes.size();
            return IntStream.range(0, count).boxed().flatMap(from -> IntStream.rangeClosed(from + 1, count)
                    .filter(to -> seconds(from, to) >= 0.5 * target && seconds(from, to) <= 1.5 * target)
                    .mapToObj(to -> rate(from, to))).max(Double::compare).orElse(average());
        }

        /** Pictures a second, where they come the fastest for about a second. */
        double fastest() {
            List<Double> times = pictureTimes.stream().sorted().toList();
            double rate = 0;
            for (int from = 0, to = 0; from < times.size(); from++) {
                while (to < times.size() - 1 && times.get(to) - times.get(from) < 1) {
                    to++;
                }
                double taken = times.get(to) - times.get(from);
                rate = taken >= 1 || from == 0 && taken > 0 ? Math.max(rate, (to - from) / taken) : rate;
            }
            return rate;
        }

        /** Pictures a second, if all were as near to one another as most that are near. */
        double nominalRate() {
            List<Double> times = pictureTimes.stream().sorted().toList();
            return IntStream.range(1, times.size()).mapToDouble(i -> times.get(i) - times.get(i - 1)).sorted()
                    .skip(times.size() / 10).mapToObj(step -> 1 / step).findFirst().orElse(0.0);
        }
    }

    private final Map<String, String> options;
    private final Map<String, String> faults = new LinkedHashMap<>(); // the first of each kind
    private final Set<String> served = new HashSet<>();

    private LadderCheck(Map<String, String> options) {
        this.options = options;
    }

    public static void main(String[] arguments) throws Exception {
        Locale.setDefault(Locale.ROOT);
        Map<String, String> options = new HashMap<>();
        int ladders = 0;
        int wrong = 0;
        for (String argument : arguments) {
            if (argument.matches("holes|apart|sound=\\d+-\\d+|turned=\\d+")) {
                options.put(argument.replaceAll("=.*", ""), argument.replaceAll(".*=", ""));
                continue;
            }
            ladders++;
            LadderCheck check = new LadderCheck(options);
            try {
                check.ladder(argument.startsWith("http:") ? URI.create(argument)
                        : Path.of(argument).toRealPath().resolve("master.m3u8").toUri());
            } catch (IOException | RuntimeException unreadable) {
                check.expect(false, argument, String.valueOf(unreadable));
            }
            check.faults.values().forEach(fault -> System.out.println("FAULT: " + fault));
            System.out.println(argument + ": " + check.faults.size() + " kinds of faults");
            wrong += check.faults.size();
        }
        System.exit(wrong == 0 && ladders > 0 ? 0 : 1);
    }

    /** Faults that differ in their numbers alone are told once, with the first of them. */
    private void expect(boolean right, String where, String text, Object... values) {
        if (!right) {
            faults.putIfAbsent(where.replaceAll("[^/]*$", "") + text, where.replaceAll(".*/(?=[^/]+/[^/]+$)", "") + ": "
                    + (values.length == 0 ? text : String.format(text, values)));
        }
    }

    private byte[] read(URI address) throws IOException {
        return Playlists.read(address, this::checkHeaders);
    }

    /** What players on other pages, and caches, need. */
    private void checkHeaders(URI address, HttpResponse<?> response) {
        String kind = address.getPath().replaceAll(".*\\.", "");
        if (!served.add(kind)) {
            return;
        }
        Map<String, String> needed = new HashMap<>(Map.of("Access-Control-Allow-Origin", "\\*", "Cache-Control", ".*",
                "Content-Type", kind.equals("m3u8") ? "application/(vnd\\.apple\\.|x-)mpegurl.*" : "(video|audio)/mp4"));
        if (!kind.equals("m3u8")) {
            needed.put("ETag", ".+");
        }
        needed.forEach((name, right) -> {
            Optional<String> value = response.headers().firstValue(name);
            expect(value.isPresent() && value.get().matches(right), address.getPath(), name + ": " + value);
        });
    }

    private void ladder(URI address) throws IOException {
        String where = address.getPath();
        List<Entry> entries = Playlists.entries(address, new String(read(address), StandardCharsets.UTF_8));
        List<Entry> variants = entries.stream().filter(entry -> !entry.has("GROUP-ID")).toList();
        expect(!variants.isEmpty(), where, "no variants");
        Map<URI, Rendition> renditions = new LinkedHashMap<>();
        for (Entry entry : entries) {
            renditions.put(entry.address(), rendition(entry.address()));
        }
        for (Entry entry : entries) {
            checkAlignment(entry.address().getPath(), renditions.get(variants.get(0).address()), renditions.get(entry.address()));
        }
        for (Entry variant : variants) {
            List<Rendition> sounds = entries.stream().filter(entry -> entry.has("GROUP-ID")
                    && entry.get("GROUP-ID").equals(variant.get("AUDIO"))).map(entry -> renditions.get(entry.address())).toList();
            expect(variant.has("AUDIO") != sounds.isEmpty(), where, "no AUDIO group %s", variant.get("AUDIO"));
            checkVariant(where, variant, renditions.get(variant.address()), sounds);
        }
    }

    private void checkVariant(String where, Entry variant, Rendition pictures, List<Rendition> sounds) {
        String name = variant.address().getPath().replaceAll(".*/([^/]+)/[^/]+$", "$1");
        double peak = pictures.peak() + sounds.stream().mapToDouble(Rendition::peak).max().orElse(0);
        double average = pictures.average() + sounds.stream().mapToDouble(Rendition::average).max().orElse(0);
        double said = variant.number("BANDWIDTH");
        double saidAverage = variant.number("AVERAGE-BANDWIDTH");
        expect(said >= peak - 1, where, "%s: BANDWIDTH is %.0f, segments have up to %.0f", name, said, peak);
        expect(!pictures.isComplete || said <= 1.1 * peak, where, "%s: BANDWIDTH is %.0f, segments have no more than %.0f", name, said,
                peak);
        expect(saidAverage <= said && (pictures.isComplete ? Math.abs(saidAverage - average) <= 0.02 * average
                : saidAverage >= 0.9 * average), where, "%s: AVERAGE-BANDWIDTH is %.0f, segments have %.0f", name, saidAverage, average);

        expect(pictures.shown.contains(variant.get("RESOLUTION")), where, "%s: RESOLUTION is %s, players show %s", name,
                variant.get("RESOLUTION"), pictures.shown);
        Set<String> codecs = Stream.concat(Stream.of(pictures), sounds.stream()).flatMap(rendition -> rendition.codecs.stream())
                .collect(Collectors.toSet());
        expect(Set.of(variant.get("CODECS").split(",")).equals(codecs), where, "%s: CODECS are %s, tracks are %s", name,
                variant.get("CODECS"), codecs);
        double rate = variant.number("FRAME-RATE");
        double found = pictures.fastest();
        expect(rate >= 0.9 * found && rate <= 1.1 * Math.max(found, pictures.nominalRate()), where,
                "%s: FRAME-RATE is %.3f, pictures come at up to %.3f", name, rate, found);
        int units = sounds.stream().mapToInt(sound -> sound.soundUnits).sum();
        String[] expected = options.getOrDefault("sound", units + "-" + units).split("-");
        expect(units >= Integer.parseInt(expected[0]) && units <= Integer.parseInt(expected[1]), where,
                "%s: %d sound units, not %s", name, units, options.get("sound"));
    }

    /** Whether two playlists are cut at the same times. */
    private void checkAlignment(String where, Rendition first, Rendition other) {
        boolean isSound = other.pictureTimes.isEmpty();
        List<Entry> segments = first.segments;
        List<Entry> others = other.segments;
        if (isSound && options.containsKey("apart")) {
            double step = other.seconds(0, others.size()) - first.seconds(0, segments.size());
            expect(Math.abs(step) <= LARGEST_STEP, where, "%.3f s more than of pictures", step);
            return;
        }
        // Live lists slide between two readings.
        int shift = (int) (others.get(0).number("EXT-X-MEDIA-SEQUENCE") - segments.get(0).number("EXT-X-MEDIA-SEQUENCE"));
        expect(Math.abs(shift) <= 1 && Math.abs(others.size() + shift - segments.size()) <= (first.isComplete ? 0 : 1), where,
                "%d segments, of pictures there are %d", others.size(), segments.size());
        for (int i = Math.max(0, shift); i < Math.min(segments.size(), others.size() + shift); i++) {
            Entry segment = segments.get(i);
            Entry same = others.get(i - shift);
            String place = same.address().getPath();
            expect(segment.has("EXT-X-DISCONTINUITY") == same.has("EXT-X-DISCONTINUITY"), place,
                    "a discontinuity in one rendition alone");
            if (!isSound) {
                boolean isLast = first.isComplete && i == segments.size() - 1; // as long as its last picture, which has a rate
                double longer = same.number("EXTINF") - segment.number("EXTINF");
                expect(Math.abs(longer) <= (isLast ? 0.1 : EXACT), place, "EXTINF is %.3f more than in the first rendition", longer);
                expect(segment.get("EXT-X-PROGRAM-DATE-TIME").equals(same.get("EXT-X-PROGRAM-DATE-TIME")), place,
                        "another date than in the first rendition");
            }
            if ((!isSound || shift == 0 && i == 0) && i < first.begins.size() && i - shift < other.begins.size()) {
                double step = other.begins.get(i - shift) - first.begins.get(i);
                expect(Math.abs(step) <= (isSound ? LARGEST_STEP : EXACT), place, "moof: begins %.3f s after the pictures of the"
                        + " first rendition", step);
            }
        }
    }

    private Rendition rendition(URI address) throws IOException {
        Rendition rendition = new Rendition(address, new String(read(address), StandardCharsets.UTF_8));
        String where = address.getPath();
        double longest = rendition.segments.stream().mapToDouble(segment -> segment.number("EXTINF")).max().orElse(0);
        expect(longest > 0, where, "no segments");
        expect(Math.round(longest) <= rendition.target
                && (rendition.segments.size() < 2 || rendition.target <= Math.ceil(longest - LARGEST_STEP)), where,
                "TARGETDURATION is %.0f, the longest segment takes %.3f s", rendition.target, longest);
        Map<URI, Track> tracks = new HashMap<>();
        double end = -1; // of the samples before, in seconds
        Entry previous = null;
        for (Entry segment : rendition.segments) {
            String place = segment.address().getPath();
            boolean begins = previous == null || segment.has("EXT-X-DISCONTINUITY");
            String date = "EXT-X-PROGRAM-DATE-TIME";
            if (!begins && previous.has(date) && segment.has(date)) {
                double step = Duration.between(Instant.parse(previous.get(date)), Instant.parse(segment.get(date))).toMillis() / 1000.0
                        - previous.number("EXTINF");
                expect(Math.abs(step) <= 0.05, place, "EXT-X-PROGRAM-DATE-TIME is %.3f s off the segment before it", step);
            }
            previous = segment;
            end = begins || segment.has("EXT-X-GAP") ? -1 : end;
            if (!segment.has("EXT-X-GAP")) {
                byte[] bytes = read(segment.address());
                URI map = address.resolve(segment.get("URI"));
                if (!tracks.containsKey(map)) {
                    byte[] initialisation = read(map);
                    tracks.put(map, Track.of(initialisation));
                    checkTrack(map.getPath(), tracks.get(map), rendition, initialisation, bytes);
                }
                end = checkSegment(rendition, segment, tracks.get(map), bytes, end);
            }
        }
        return rendition;
    }

    /** What FFprobe says of the only track of a file in so many parts, by its own names. */
    private static Map<String, String> probe(byte[]... parts) throws IOException {
        Path file = Files.createTempFile("ladder", ".mp4");
        try {
            ByteArrayOutputStream bytes = new ByteArrayOutputStream();
            Stream.of(parts).forEach(bytes::writeBytes);
            Files.write(file, bytes.toByteArray());
            String tree = System.getenv("KELVANE_DIST");
            Process probe = new ProcessBuilder((tree == null ? "" : tree + "/bin/") + "ffprobe", "-v", "error", "-show_entries",
                    "stream=codec_type,profile,width,height,sample_aspect_ratio,sample_rate:stream_tags=rotate", "-of", "compact=p=0",
                    file.toString()).redirectErrorStream(true).start();
            String found = new String(probe.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            return found.trim().lines().findFirst().stream().flatMap(line -> Stream.of(line.split("\\|")))
                    .map(entry -> entry.split("=", 2)).collect(Collectors.toMap(entry -> entry[0], entry -> entry[1]));
        } finally {
            Files.delete(file);
        }
    }

    private void checkTrack(String where, Track track, Rendition rendition, byte[] initialisation, byte[] segment) throws IOException {
        expect(!track.hasEdits(), where, "elst: an edit list, which players ignore or take differently");
        Map<String, String> found = probe(initialisation, segment);
        if (found.get("codec_type").equals("audio")) {
            rendition.codecs.add(AAC.get(found.get("profile")));
            rendition.unit = AAC_FRAME / Double.parseDouble(found.get("sample_rate"));
            return;
        }
        int width = Integer.parseInt(found.get("width"));
        int height = Integer.parseInt(found.get("height"));
        ByteBuffer entry = Mp4.box(track.entry(), "avc1");
        expect(width == entry.getShort(24) && height == entry.getShort(26), where, "avc1: %dx%d, its pictures have %dx%d",
                entry.getShort(24), entry.getShort(26), width, height);
        ByteBuffer configuration = Mp4.box(inside(entry), "avcC");
        rendition.codecs.add(String.format("avc1.%06x", configuration.getInt(0) & 0xffffff));
        // What the pictures say is told where neither pasp nor tkhd does.
        byte[] plain = initialisation.clone();
        ByteBuffer header = Mp4.box(ByteBuffer.wrap(plain), "moov", "trak", "tkhd");
        header.putLong(header.limit() - 8, 0);
        List<ByteBuffer> shapes = Mp4.boxes(inside(Mp4.box(Track.of(plain).entry(), "avc1")), "pasp");
        String shape = shapes.stream().map(box -> box.getInt(0) + ":" + box.getInt(4)).findFirst().orElse("1:1");
        shapes.forEach(box -> box.putLong(0, 0));
        String picturesShape = probe(plain, segment).get("sample_aspect_ratio").replace("N/A", "1:1");
        expect(shape.equals(picturesShape), where, "pasp: %s, the pictures say %s", shape, picturesShape);
        String turned = found.getOrDefault("tag:rotate", "0");
        expect(turned.equals(options.getOrDefault("turned", "0")), where, "tkhd: players turn the pictures by %s degrees", turned);
        String[] pixel = shape.split(":");
        long wide = Math.round(width * Double.parseDouble(pixel[0]) / Double.parseDouble(pixel[1]));
        for (long even : new long[] {wide, wide & ~1, wide + 1 & ~1}) { // odd ones may be made even
            rendition.shown.add(turned.matches("90|270") ? height + "x" + even : even + "x" + height);
        }
    }

    /** The boxes behind the header of an avc1. */
    private static ByteBuffer inside(ByteBuffer entry) {
        return entry.slice(78, entry.limit() - 78);
    }

    /** @param end where the samples before end, in seconds; negative where there are none; returns where those of this one do */
    private double checkSegment(Rendition rendition, Entry segment, Track track, byte[] bytes, double end) {
        String where = segment.address().getPath();
        boolean hasPictures = rendition.unit == 0;
        double scale = track.timescale();
        List<Sample> samples = Mp4.samples(bytes, track);
        rendition.sizes.add(bytes.length);
        if (samples.isEmpty()) {
            expect(false, where, "no samples");
            return -1;
        }
        double seconds = 0;
        for (Sample sample : samples) {
            double step = sample.decoded() / scale - end;
            expect(end < 0 || Math.abs(step) < 0.6 / scale || options.containsKey("holes"), where,
                    "tfdt: %.4f s from where the samples before end", step);
            end = (sample.decoded() + sample.duration()) / scale;
            seconds += sample.duration() / scale;
            // AAC units take what they take; another duration is a hole in front of the next one, which browsers close.
            expect(hasPictures || Math.abs(sample.duration() / scale - rendition.unit) < EXACT || options.containsKey("holes"), where,
                    "trun: a sound unit of %.4f s takes %.4f s", rendition.unit, sample.duration() / scale);
            expect(!hasPictures || sample.isSync() == sample.isIdr(), where, "trun: flags do not say which are key pictures");
        }
        expect(Math.abs(seconds - segment.number("EXTINF")) <= EXACT, where, "EXTINF is %.3f, samples take %.4f s",
                segment.number("EXTINF"), seconds);
        List<Double> shown = samples.stream().map(sample -> sample.shown() / scale).toList();
        rendition.begins.add(shown.stream().min(Double::compare).orElseThrow());
        if (hasPictures) {
            rendition.pictureTimes.addAll(shown);
            expect(samples.get(0).isIdr(), where, "trun: does not begin with a key picture");
            expect(shown.get(0) - rendition.begins.get(rendition.begins.size() - 1) < EXACT, where,
                    "trun: pictures are shown before the key picture");
        } else {
            rendition.soundUnits += samples.size();
        }
        return end;
    }
}
