package com.kelvane.media.tool.live;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.PicturePlan;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.LivePacket;
import com.kelvane.media.tool.input.LiveSound;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.RateReducer;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.output.SegmentKeys;
import java.io.IOException;
import java.util.Comparator;
import java.util.List;
import java.util.PriorityQueue;
import java.util.Queue;
import java.util.TreeMap;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.stream.IntStream;

/** Transcodes a live stream's packets, one after the other, into a ladder. */
final class LiveSession implements AutoCloseable {
    private static final int VIDEO = 0;
    private static final int SOUND = 1;
    private static final double SOUND_PACKET = 21; // ms, about
    private static final int MOST_WAITING = 1000;  // units of sound that wait for their pictures
    private static final double LONGEST_OVERHANG = 400; // ms of sound behind the last picture

    private final LiveFigures figures;
    private final LiveLadder ladder;
    private final ExecutorService helpers;
    private final Transcoder transcoder;
    private final List<RenditionOutput> outputs;
    private final RateReducer[] reducers;
    private final SegmentKeys segments;
    private final LoadShedder shedder;
    private final SourceClock clock = new SourceClock(2);
    private final TreeMap<Long, Long> arrivals = new TreeMap<>(); // of pictures in the decoder, by their times
    private final Queue<AacSource.Unit> heard = // that waits for its pictures
            new PriorityQueue<>(Comparator.comparingDouble(AacSource.Unit::time));
    private LiveSound sound;
    private double pictureDuration;
    private boolean timed;
    private double countedTime;   // of the next picture of a stream without times
    private long time = -1;       // of the picture at hand, or the last one
    private long arrival;
    private boolean cutSoon; // whether a segment begins as soon as that is possible
    private int made;
    private double anchor = Double.NaN; // the clock's time at 0 of the result, if all came in time
    private double behind;
    private long busy;            // nanoseconds since the segment's beginning
    private long workBegan;
    private long segmentBegan = System.nanoTime();

    LiveSession(LiveSettings settings, VideoTrack video, LiveFolder folder, LiveFigures figures) throws IOException {
        this.figures = figures;
        // The largest first, as that is the first to be left out.
        List<RenditionRequest> requests = (settings.renditions().isEmpty() ? RenditionRequest.ladder(video)
                : settings.renditions()).stream().sorted(Comparator.comparingInt(request ->
                        -request.settings().width() * request.settings().height())).toList();
        List<Double> rates = requests.stream().map(request -> request.pictureRate(video.frameRate())).toList();
        List<Rendition> renditions = requests.stream().map(request -> request.settings().keyInterval() > 0
                ? request.completed(video.frameRate())
                : SegmentKeys.withoutOwn(request.completed(video.frameRate()), settings.segmentSeconds())).toList();
        outputs = IntStream.range(0, renditions.size()).mapToObj(i -> new RenditionOutput(renditions.get(i).width(),
                renditions.get(i).height(), rates.get(i), false)).toList();
        reducers = rates.stream().map(rate -> new RateReducer(video.frameRate(), rate)).toArray(RateReducer[]::new);
        segments = SegmentKeys.ofWhole(settings.segmentSeconds());
        shedder = new LoadShedder(outputs.size());
        made = outputs.size();
        ladder = new LiveLadder(outputs, new Publication(outputs, renditions.stream().map(Rendition::bitrate).toList(), folder,
                settings.segmentSeconds(), settings.window(), figures), figures);
        int threads = Math.min(outputs.size(), Runtime.getRuntime().availableProcessors()) - 1;
        helpers = threads > 0 ? Executors.newFixedThreadPool(threads) : null;
        Transcoder.Builder builder = Transcoder.builder().renditions(renditions).plan(this::plan)
                .onFailure(figures::failed);
        transcoder = (helpers == null ? builder : builder.parallel(helpers)).open();
        figures.ladder(outputs, transcoder);
    }

    List<RenditionOutput> outputs() {
        return outputs;
    }

    /** Another stream begins, with times of its own. */
    void begin(VideoTrack video, AudioTrack audio) throws IOException {
        drain();
        if (sound != null) {
            sound.close();
        }
        sound = audio == null ? null : LiveSound.open(audio).orElse(null);
        if (audio != null && sound == null) {
            figures.note("sound", "sound: left out, as its AAC is of an unusual kind");
        }
        timed = video.timed();
        pictureDuration = 1000 / video.frameRate();
        clock.restart();
        countedTime = Math.max(clock.end(VIDEO), time + pictureDuration);
        if (ladder.source(video.meaning(), sound)) {
            heard.clear();
            cutSoon = true;
        }
        if (!ladder.hasSound() && sound != null) {
            figures.note("sound", "sound: left out, as the stream began without");
        }
    }

    /** @param waited whether there was nothing to do before this packet came */
    void add(LivePacket packet, boolean waited) {
        workBegan = System.nanoTime();
        try {
            if (packet.video()) {
                addPicture(packet, waited);
            } else if (sound != null && ladder.hasSound()) {
                addSound(packet);
            }
        } finally {
            busy += System.nanoTime() - workBegan;
        }
    }

    private void addPicture(LivePacket packet, boolean waited) {
        double at = resultTime(VIDEO, packet, pictureDuration);
        if (!AccessUnit.isByteStream(packet.bytes())) {
            figures.damaged();
            return;
        }
        double now = System.nanoTime() / 1e6;
        if (waited || Double.isNaN(anchor) || now - at < anchor) {
            anchor = now - at;
        }
        behind = now - at - anchor;
        long unit = Math.max(0, Math.round(at));
        arrivals.put(unit, packet.arrival());
        transcoder.write(packet.bytes(), unit, this::take);
        clock.jump().ifPresent(jump -> {
            figures.jumped();
            figures.note("jump", "the source's times have jumped by %.1f s, which is evened out", jump / 1000);
        });
    }

    private double resultTime(int track, LivePacket packet, double duration) {
        double decoding = Double.isNaN(packet.decodingTime()) ? packet.time() : packet.decodingTime();
        return Double.isNaN(decoding) ? clock.next(track, duration)
                : clock.at(track, decoding, Double.isNaN(packet.time()) ? decoding : packet.time(), duration);
    }

    private void addSound(LivePacket packet) {
        heard.addAll(sound.add(packet.bytes(), resultTime(SOUND, packet, SOUND_PACKET)));
        while (heard.size() > MOST_WAITING) {
            heard.poll();
        }
    }

    private void writeSound(double until) {
        while (!heard.isEmpty() && heard.peek().time() <= until) {
            ladder.writeSound(heard.poll());
        }
    }

    private void plan(PicturePlan picture) {
        long unit = picture.time();
        arrival = arrivals.getOrDefault(unit, workBegan);
        arrivals.headMap(unit, true).clear();
        long next = timed ? unit : Math.round(countedTime);
        countedTime += pictureDuration;
        if (next <= time) { // where the source's times overlap
            picture.selectAll(false);
            return;
        }
        time = next;
        if (RateReducer.thin(reducers, reducers.length - made, time, picture) && (segments.begins(time) | cutSoon)) {
            cutSoon = false;
            picture.keyAll();
            cut(picture);
        }
        for (int i = 0; i < reducers.length - made; i++) {
            picture.select(i, false);
        }
        writeSound(time);
        ladder.awaitSound(time);
    }

    private void cut(PicturePlan picture) {
        long now = System.nanoTime();
        double wall = Math.max(1, now - segmentBegan);
        double part = Math.min(1, (busy + now - workBegan) / wall);
        busy = workBegan - now; // what was counted here is not counted again
        segmentBegan = now;
        int wanted = shedder.decide(now / 1e6, behind, part, costOfNext());
        if (wanted < made) {
            figures.shed();
            figures.note("shed " + made, "%s is left out for now: the machine is %.1f s behind",
                    outputs.get(reducers.length - made).size(), behind / 1000);
        } else if (wanted > made) {
            figures.note("back " + wanted, "%s is made again", outputs.get(reducers.length - wanted).size());
            picture.select(reducers.length - wanted, true);
        }
        made = wanted;
        figures.load(behind, part, made);
        ladder.cut(time, arrival);
    }

    /** Part of the time that the rendition would take that was left out last. */
    private double costOfNext() {
        if (made == reducers.length) {
            return 0;
        }
        Transcoder.RenditionStatistics done = transcoder.statistics().renditions().get(reducers.length - made - 1);
        long pictures = Math.max(1, done.pictures() + done.skipped() + done.failed());
        return done.encodeTime().toNanos() / 1e6 / pictures * outputs.get(reducers.length - made - 1).frameRate() / 1000;
    }

    private void take(EncodedPicture picture) {
        ladder.writePicture(picture.index(), picture.copy(), time, picture.isKey());
        if (picture.index() == reducers.length - 1) {
            figures.through(arrival);
        }
    }

    private void drain() {
        workBegan = System.nanoTime();
        transcoder.drain(this::take);
        if (sound != null) {
            heard.addAll(sound.finish());
        }
        writeSound(time + pictureDuration);
    }

    /** Ends the ladder. Returns whether there is anything to play. */
    boolean finish() throws IOException {
        drain();
        long end = time + Math.round(pictureDuration);
        writeSound(end + LONGEST_OVERHANG);
        return ladder.finish(end);
    }

    @Override
    public void close() {
        transcoder.close();
        ladder.close();
        if (sound != null) {
            sound.close();
        }
        if (helpers != null) {
            helpers.shutdown();
        }
    }
}
