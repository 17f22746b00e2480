package com.kelvane.media.test;

import com.kelvane.media.test.Mp4.Fragment;
import com.kelvane.media.test.Mp4.Sample;
import com.kelvane.media.test.Mp4.Track;
import com.kelvane.media.test.Playlists.Entry;
import com.kelvane.media.test.Playlists.Master;
import com.kelvane.media.test.Playlists.Media;
import com.kelvane.media.test.Playlists.Segment;
import java.io.IOException;
import java.net.URI;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Set;
import java.util.stream.Collectors;
import java.util.stream.IntStream;

/**
 * Checks an HLS ladder of fragmented MP4, whoever made it, box by box against its playlists. Arguments: folders of ladders, or
 * addresses of master playlists; in front of them {@code sound=FEWEST-MOST} for how many sound units each rendition has to have,
 * {@code turned=DEGREES} for how players are to turn the pictures, {@code holes} where the source itself had some,
 * and {@code apart} where the sound is cut without regard to the pictures. Prints
 * a line for each fault and exits with 1 if there are any.
 */
public final class LadderCheck {
    private static final double MILLISECOND = 0.001;
    private static final double EXACT = 1.5 * MILLISECOND; // what a playlist's three digits, and times in milliseconds, allow
    private static final int AAC_FRAME = 1024;             // samples
    private static final double LARGEST_STEP = 0.05;       // seconds between the time lines of sound and pictures

    /** What the segments of one media playlist hold. */
    private static final class Rendition {
        final Media playlist;
        final List<Integer> sizes = new ArrayList<>();          // bytes of the segments
        final List<Double> pictureBegins = new ArrayList<>();    // seconds, of the segments
        final List<Double> soundBegins = new ArrayList<>();
        final List<Double> pictureTimes = new ArrayList<>();     // of all pictures, in the order of their display
        final Set<String> codecs = new LinkedHashSet<>();
        final Set<String> shown = new LinkedHashSet<>();         // sizes, as players show the pictures
        int soundUnits;

        Rendition(Media playlist) {
            this.playlist = playlist;
        }

        double seconds() {
            return playlist.segments().stream().mapToDouble(Segment::seconds).sum();
        }

        double average() {
            return 8 * sizes.stream().mapToLong(Integer::longValue).sum() / seconds();
        }

        /** The largest bit rate of segments in a row that take half to one and a half target durations. */
        double peak() {
            double peak = 0;
            for (int begin = 0; begin < sizes.size(); begin++) {
                double bits = 0;
                double taken = 0;
                for (int i = begin; i < sizes.size() && taken + playlist.segments().get(i).seconds() <= 1.5 * playlist.target(); i++) {
                    bits += 8.0 * sizes.get(i);
                    taken += playlist.segments().get(i).seconds();
                    peak = taken < 0.5 * playlist.target() ? peak : Math.max(peak, bits / taken);
                }
            }
            return peak == 0 ? average() : peak;
        }

        /** Pictures a second, where they come the fastest for about a second. */
        double rate() {
            double rate = 0;
            List<Double> times = pictureTimes.stream().sorted().toList();
            for (int from = 0, to = 0; to < times.size(); to++) {
                while (times.get(to) - times.get(from + 1 < to ? from + 1 : from) >= 1) {
                    from++;
                }
                double taken = times.get(to) - times.get(from);
                rate = to > from && (taken >= 1 || times.get(times.size() - 1) - times.get(0) < 1.1 && to == times.size() - 1)
                        ? Math.max(rate, (to - from) / taken) : rate;
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
    private final Map<String, Integer> faults = new LinkedHashMap<>(); // how often each was found
    private final Map<String, String> kinds = new HashMap<>();         // the first fault of each kind
    private final Set<String> served = new HashSet<>();

    private LadderCheck(Map<String, String> options) {
        this.options = options;
    }

    public static void main(String[] arguments) throws Exception {
        Locale.setDefault(Locale.ROOT);
        Map<String, String> options = new HashMap<>();
        boolean right = true;
        int ladders = 0;
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
                check.fault(argument, String.valueOf(unreadable));
            }
            check.faults.forEach((fault, count) -> System.out.println("FAULT: " + fault + (count > 1 ? ", " + count + " times" : "")));
            System.out.println(argument + ": " + check.faults.size() + " kinds of faults");
            right &= check.faults.isEmpty();
        }
        System.exit(right && ladders > 0 ? 0 : 1);
    }

    /** Faults that differ in their numbers alone are told once, with the first of them. */
    private void fault(String where, String text, Object... values) {
        String fault = where.replaceAll(".*/(?=[^/]+/[^/]+$)", "") + ": " + String.format(text, values);
        faults.merge(kinds.computeIfAbsent(where.replaceAll("[^/]*$", "") + text, kind -> fault), 1, Integer::sum);
    }

    private void expect(boolean right, String where, String text, Object... values) {
        if (!right) {
            fault(where, text, values);
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
        String where = address.getPath();
        expect(response.headers().firstValue("Access-Control-Allow-Origin").orElse("").equals("*"), where,
                "no Access-Control-Allow-Origin: *");
        String type = response.headers().firstValue("Content-Type").orElse("");
        expect(kind.equals("m3u8") ? type.matches("application/(vnd\\.apple\\.|x-)mpegurl.*") : type.matches("(video|audio)/mp4"), where,
                "Content-Type %s", type);
        expect(response.headers().firstValue("Cache-Control").isPresent(), where, "no Cache-Control");
        expect(kind.equals("m3u8") || response.headers().firstValue("ETag").isPresent(), where, "no ETag");
    }

    private void ladder(URI address) throws IOException {
        String where = address.getPath();
        Master master = Playlists.master(address, text(address));
        expect(!master.variants().isEmpty(), where, "no variants");
        Map<URI, Rendition> renditions = new LinkedHashMap<>();
        for (Entry entry : master.variants()) {
            renditions.put(entry.address(), rendition(entry.address()));
        }
        for (Entry entry : master.renditions()) {
            if (entry.address() != null) {
                renditions.put(entry.address(), rendition(entry.address()));
            }
        }
        Rendition first = renditions.get(master.variants().get(0).address());
        for (Rendition other : renditions.values()) {
            checkAlignment(first, other);
        }
        for (Entry variant : master.variants()) {
            List<Rendition> sounds = master.renditions().stream().filter(entry -> entry.address() != null
                    && entry.get("GROUP-ID").equals(variant.get("AUDIO"))).map(entry -> renditions.get(entry.address())).toList();
            expect(variant.get("AUDIO").isEmpty() || !sounds.isEmpty(), where, "no AUDIO group %s", variant.get("AUDIO"));
            checkVariant(where, variant, renditions.get(variant.address()), sounds);
        }
    }

    private String text(URI address) throws IOException {
        return new String(read(address), StandardCharsets.UTF_8);
    }

    private void checkVariant(String where, Entry variant, Rendition pictures, List<Rendition> sounds) {
        String name = variant.address().getPath().replaceAll(".*/([^/]+)/[^/]+$", "$1");
        boolean complete = pictures.playlist.isComplete();
        double peak = pictures.peak() + sounds.stream().mapToDouble(Rendition::peak).max().orElse(0);
        double average = pictures.average() + sounds.stream().mapToDouble(Rendition::average).max().orElse(0);
        double said = Double.parseDouble("0" + variant.get("BANDWIDTH"));
        double saidAverage = Double.parseDouble("0" + variant.get("AVERAGE-BANDWIDTH"));
        expect(said >= peak - 1, where, "%s: BANDWIDTH is %.0f, segments have up to %.0f", name, said, peak);
        expect(!complete || said <= 1.1 * peak, where, "%s: BANDWIDTH is %.0f, segments have no more than %.0f", name, said, peak);
        expect(saidAverage <= said, where, "%s: AVERAGE-BANDWIDTH is above BANDWIDTH", name);
        expect(complete ? Math.abs(saidAverage - average) <= 0.02 * average : saidAverage >= 0.9 * average, where,
                "%s: AVERAGE-BANDWIDTH is %.0f, segments have %.0f", name, saidAverage, average);

        expect(pictures.shown.contains(variant.get("RESOLUTION")), where, "%s: RESOLUTION is %s, players show %s", name,
                variant.get("RESOLUTION"), pictures.shown);
        Set<String> codecs = new LinkedHashSet<>(pictures.codecs);
        sounds.forEach(sound -> codecs.addAll(sound.codecs));
        expect(Set.of(variant.get("CODECS").split(",")).equals(codecs), where, "%s: CODECS are %s, tracks are %s", name,
                variant.get("CODECS"), codecs);
        double rate = Double.parseDouble("0" + variant.get("FRAME-RATE"));
        double found = pictures.rate();
        expect(rate >= 0.9 * found && rate <= 1.1 * Math.max(found, pictures.nominalRate()), where,
                "%s: FRAME-RATE is %.3f, pictures come at up to %.3f", name, rate, found);
        int units = pictures.soundUnits + sounds.stream().mapToInt(sound -> sound.soundUnits).sum();
        String expected = options.getOrDefault("sound", units + "-" + units);
        expect(units >= Integer.parseInt(expected.replaceAll("-.*", "")) && units <= Integer.parseInt(expected.replaceAll(".*-", "")),
                where, "%s: %d sound units, not %s", name, units, expected);
    }

    /** Whether two playlists are cut at the same times. */
    private void checkAlignment(Rendition first, Rendition other) {
        if (first == other) {
            return;
        }
        String where = other.playlist.address().getPath();
        boolean isSound = other.pictureBegins.isEmpty();
        List<Segment> segments = first.playlist.segments();
        List<Segment> others = other.playlist.segments();
        int shift = (int) (other.playlist.sequence() - first.playlist.sequence()); // lists that slid between two readings
        if (isSound && options.containsKey("apart")) {
            expect(Math.abs(other.seconds() - first.seconds()) <= LARGEST_STEP, where, "%.3f s, of pictures there are %.3f",
                    other.seconds(), first.seconds());
        } else {
            expect(Math.abs(shift) <= 1
                    && Math.abs(others.size() + shift - segments.size()) <= (first.playlist.isComplete() ? 0 : 1), where,
                    "%d segments, of pictures there are %d", others.size(), segments.size());
        }
        for (int i = Math.max(0, shift); i < Math.min(segments.size(), others.size() + shift); i++) {
            Segment segment = segments.get(i);
            Segment same = others.get(i - shift);
            String place = same.address().getPath();
            expect(segment.begins() == same.begins(), place, "a discontinuity in one rendition alone");
            if (!isSound) {
                boolean isLast = first.playlist.isComplete() && i == segments.size() - 1; // as long as its last picture, which has a rate
                expect(Math.abs(segment.seconds() - same.seconds()) <= (isLast ? 0.1 : EXACT), place, "EXTINF is %.3f, in the first rendition %.3f",
                        same.seconds(), segment.seconds());
                expect(segment.date() == null || segment.date().equals(same.date()), place, "another date than in the first rendition");
                if (i < first.pictureBegins.size() && i - shift < other.pictureBegins.size()) {
                    double step = other.pictureBegins.get(i - shift) - first.pictureBegins.get(i);
                    expect(Math.abs(step) <= EXACT, place, "begins %.3f s after that of the first rendition", step);
                }
            }
        }
        if (isSound && !other.soundBegins.isEmpty() && !first.pictureBegins.isEmpty() && shift == 0) {
            double step = other.soundBegins.get(0) - first.pictureBegins.get(0);
            expect(Math.abs(step) <= LARGEST_STEP, where, "moof: the first sound has a time %.3f s after that of the first picture, and"
                    + " both are the playlists' beginning", step);
        }
    }

    private Rendition rendition(URI address) throws IOException {
        Media playlist = Playlists.media(address, text(address));
        String where = address.getPath();
        Rendition rendition = new Rendition(playlist);
        double longest = playlist.segments().stream().mapToDouble(Segment::seconds).max().orElse(0);
        expect(!playlist.segments().isEmpty(), where, "no segments");
        expect(Math.round(longest) <= playlist.target(), where, "TARGETDURATION is %d, a segment takes %.3f s", playlist.target(), longest);
        expect(playlist.segments().size() < 2 || playlist.target() <= Math.ceil(longest - LARGEST_STEP), where,
                "TARGETDURATION is %d, the longest segment takes %.3f s", playlist.target(), longest);
        Map<URI, Map<Integer, Track>> tracks = new HashMap<>();
        Map<Integer, Double> ends = new HashMap<>(); // of the tracks, by what sort they are: 1 for pictures
        Segment previous = null;
        for (Segment segment : playlist.segments()) {
            String place = segment.address().getPath();
            expect(segment.seconds() > 0, place, "no EXTINF");
            if (segment.begins() || segment.isGap()) {
                ends.clear();
            }
            if (previous != null && !segment.begins() && previous.date() != null && segment.date() != null) {
                double step = (segment.date().toEpochMilli() - previous.date().toEpochMilli()) / 1000.0 - previous.seconds();
                expect(Math.abs(step) <= 0.05, place, "EXT-X-PROGRAM-DATE-TIME is %.3f s off the segment before it", step);
            }
            previous = segment;
            if (segment.isGap()) {
                continue;
            }
            if (segment.map() == null) {
                fault(place, "no EXT-X-MAP");
                continue;
            }
            if (!tracks.containsKey(segment.map())) {
                tracks.put(segment.map(), Mp4.tracks(read(segment.map())));
                tracks.get(segment.map()).values().forEach(track -> checkTrack(segment.map().getPath(), track, rendition));
            }
            checkSegment(rendition, segment, tracks.get(segment.map()), ends);
        }
        return rendition;
    }

    private void checkTrack(String where, Track track, Rendition rendition) {
        rendition.codecs.add(track.codec());
        long beyond = track.edits().stream().filter(edit -> edit.mediaTime() != 0).count();
        expect(beyond == 0 && track.edits().size() <= 1, where, "elst of %s: %s, which players ignore or take differently",
                track.isVideo() ? "pictures" : "sound", track.edits());
        if (!track.isVideo()) {
            return;
        }
        SequenceParameters set = SequenceParameters.of(track.configuration());
        expect(set.width() == track.width() && set.height() == track.height(), where, "avc1: %dx%d, its pictures have %dx%d",
                track.width(), track.height(), set.width(), set.height());
        int[] shape = {set.shapeWidth(), set.shapeHeight()};
        expect(shape[0] * track.shape().get(1) == shape[1] * track.shape().get(0), where, "pasp: %s, the pictures say %d:%d",
                track.shape(), shape[0], shape[1]);
        String turned = options.getOrDefault("turned", "0");
        expect(turned.equals(Integer.toString(track.turned())), where, "tkhd: players turn the pictures by %d degrees, not %s",
                track.turned(), turned);
        long width = Math.round((double) set.width() * shape[0] / shape[1]);
        boolean onItsSide = track.turned() == 90 || track.turned() == 270;
        for (long wide : new long[] {width, width & ~1, width + 1 & ~1}) { // odd ones may be made even
            rendition.shown.add(onItsSide ? set.height() + "x" + wide : wide + "x" + set.height());
        }
    }

    /** @param ends where the samples of each sort of track end that came before, in seconds */
    private void checkSegment(Rendition rendition, Segment segment, Map<Integer, Track> tracks, Map<Integer, Double> ends)
            throws IOException {
        String where = segment.address().getPath();
        byte[] bytes = read(segment.address());
        rendition.sizes.add(bytes.length);
        Map<Integer, List<Fragment>> byTrack = Mp4.fragments(bytes, tracks, (box, text) -> fault(where, "%s: " + text, box)).stream()
                .collect(Collectors.groupingBy(Fragment::track));
        boolean hasPictures = tracks.values().stream().anyMatch(Track::isVideo);
        for (Track track : tracks.values()) {
            List<Fragment> fragments = byTrack.getOrDefault(track.id(), List.of());
            List<Sample> samples = fragments.stream().flatMap(fragment -> fragment.samples().stream()).toList();
            if (samples.isEmpty()) {
                fault(where, "no samples of %s", track.isVideo() ? "pictures" : "sound");
                continue;
            }
            for (Fragment fragment : fragments) {
                double begin = (double) fragment.time() / track.timescale();
                double step = begin - ends.getOrDefault(track.isVideo() ? 1 : 0, begin);
                expect(Math.abs(step) < 0.6 / track.timescale() || options.containsKey("holes"), where,
                        "tfdt: %s are %.4f s from where the samples before end", track.isVideo() ? "pictures" : "sounds", step);
                ends.put(track.isVideo() ? 1 : 0, begin
                        + fragment.samples().stream().mapToLong(Sample::duration).sum() / (double) track.timescale());
            }
            double begin = samples.stream().mapToLong(Sample::presentation).min().orElseThrow() / (double) track.timescale();
            double seconds = samples.stream().mapToLong(Sample::duration).sum() / (double) track.timescale();
            if (track.isVideo() || !hasPictures) {
                expect(Math.abs(seconds - segment.seconds()) <= EXACT, where, "EXTINF is %.3f, samples of %s take %.4f s",
                        segment.seconds(), track.isVideo() ? "pictures" : "sound", seconds);
            }
            if (track.isVideo()) {
                rendition.pictureBegins.add(begin);
                samples.forEach(sample -> rendition.pictureTimes.add((double) sample.presentation() / track.timescale()));
                expect(samples.get(0).isIdr(track), where, "trun: does not begin with a key picture");
                expect(samples.stream().allMatch(sample -> sample.isSync() == sample.isIdr(track)), where,
                        "trun: flags of samples do not say which are key pictures");
                expect(samples.get(0).presentation() / (double) track.timescale() - begin < EXACT, where,
                        "trun: pictures are shown before the key picture");
            } else {
                rendition.soundBegins.add(begin);
                rendition.soundUnits += samples.size();
                checkUnits(where, track, samples);
            }
        }
    }

    /** AAC units take what they take; another duration is a hole in front of the next one, which browsers close. */
    private void checkUnits(String where, Track track, List<Sample> samples) {
        int index = (track.configuration()[0] & 7) << 1 | (track.configuration()[1] & 0xff) >> 7;
        int[] rates = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
        if (index >= rates.length) {
            return;
        }
        double unit = (double) AAC_FRAME / rates[index];
        for (Sample sample : samples) {
            double seconds = (double) sample.duration() / track.timescale();
            expect(Math.abs(seconds - unit) < EXACT || options.containsKey("holes"), where,
                    "trun: a sound unit of %.4f s takes %.4f s", unit, seconds);
        }
    }
}
