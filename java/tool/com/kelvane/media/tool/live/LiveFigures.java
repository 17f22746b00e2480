package com.kelvane.media.tool.live;

import com.fasterxml.jackson.core.JsonGenerator;
import com.kelvane.media.EncoderFailure;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.LostPictures;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.shell.JsonLines;
import com.kelvane.media.tool.shell.Progress;
import com.kelvane.media.tool.shell.Text;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;

/** How a live run is doing. One thread counts its pictures; others list segments, serve them and ask. */
final class LiveFigures {
    private static final double NOTE_INTERVAL = 10; // seconds between lines of the same kind
    private static final double LATENCY_SPAN = 10;  // seconds

    private final long start = System.nanoTime();
    private final String name;
    private final Map<String, Double> notes = new HashMap<>();
    private volatile String state = "waiting";
    private VideoTrack source;
    private AudioTrack sound;
    private List<RenditionOutput> outputs = List.of();
    private Transcoder transcoder;
    private int made;
    private long pictures;
    private double rate;
    private double rateSince;
    private long ratePictures;
    private double behind;
    private double busy;
    private double latencySum;
    private double latencyMost;
    private long latencyCount;
    private double latencySince;
    private double latency;
    private double largestLatency;
    private long jumps;
    private long damaged;
    private long shed;
    private double silent; // seconds of sound
    private long soundLeftOut;
    private final LostPictures lost = new LostPictures();
    private volatile double segmentLatency;
    private volatile double largestSegmentLatency;
    private volatile int first;
    private volatile int listed;
    private volatile double listedSeconds;
    private volatile long lastArrival;
    final AtomicLong bytesServed = new AtomicLong();
    final AtomicLong requests = new AtomicLong();
    final AtomicInteger connections = new AtomicInteger();

    LiveFigures(String name) {
        this.name = name;
    }

    /** Seconds since the beginning. */
    double now() {
        return (System.nanoTime() - start) / 1e9;
    }

    /** Says something, but not the same again and again. */
    synchronized void note(String kind, String line, Object... values) {
        double now = now();
        if (now - notes.getOrDefault(kind, -NOTE_INTERVAL) >= NOTE_INTERVAL) {
            notes.put(kind, now);
            Progress.clear();
            Summary.line(line, values);
        }
    }

    synchronized void state(String now) {
        state = now;
    }

    synchronized void source(VideoTrack video, AudioTrack audio) {
        source = video;
        sound = audio;
        state = "live";
    }

    synchronized void ladder(List<RenditionOutput> renditions, Transcoder engine) {
        outputs = renditions;
        transcoder = engine;
        made = renditions.size();
    }

    void arrived(long when) {
        lastArrival = when;
    }

    /** A picture is through; when it came. */
    synchronized void through(long arrival) {
        pictures++;
        double milliseconds = (System.nanoTime() - arrival) / 1e6;
        latencySum += milliseconds;
        latencyMost = Math.max(latencyMost, milliseconds);
        latencyCount++;
        double now = now();
        if (now - latencySince >= LATENCY_SPAN) {
            average(now);
        }
        if (now - rateSince >= 1) {
            rate = (pictures - ratePictures) / (now - rateSince);
            ratePictures = pictures;
            rateSince = now;
        }
    }

    private void average(double now) {
        latency = latencyCount == 0 ? latency : latencySum / latencyCount;
        largestLatency = latencyMost;
        latencySum = 0;
        latencyMost = 0;
        latencyCount = 0;
        latencySince = now;
    }

    synchronized void load(double millisecondsBehind, double partBusy, int renditionsMade) {
        behind = millisecondsBehind;
        busy = partBusy;
        made = renditionsMade;
    }

    synchronized void jumped() {
        jumps++;
    }

    synchronized void damaged() {
        damaged++;
    }

    synchronized void shed() {
        shed++;
    }

    /**
     * A segment's sound is complete.
     *
     * @param filled units of silence in it
     * @param leftOut units that have come too late, or twice
     * @param unit seconds of one
     */
    synchronized void sound(int filled, int leftOut, double unit) {
        silent += filled * unit;
        soundLeftOut += leftOut;
        if (filled > 1) { // one may lie between two streams, or behind the last
            note("silence", "sound: %.2f s were missing and are silent", filled * unit);
        }
        if (leftOut > 0) {
            note("left out", "sound: %d units came too late, or twice", leftOut);
        }
    }

    /** An encoder has failed at a picture. */
    synchronized void failed(EncoderFailure failure) {
        lost.accept(failure);
        note("failed " + failure.index(), "%s: the encoder failed at a picture, %s: %s", outputs.get(failure.index()).size(),
                failure.lost() ? "which is missing" : "and was made anew for it", failure.reason());
    }

    /** A line for each rendition that lacks pictures. */
    synchronized List<String> lacking() {
        return lost.lines(outputs.stream().map(RenditionOutput::size).toList());
    }

    /** A segment is in the lists; when its first picture came. */
    void listed(long arrival) {
        segmentLatency = (System.nanoTime() - arrival) / 1e9;
        largestSegmentLatency = Math.max(largestSegmentLatency, segmentLatency);
    }

    void window(int firstSegment, int segments, double seconds) {
        first = firstSegment;
        listed = segments;
        listedSeconds = seconds;
    }

    /** Seconds for which nothing has come; 0 before the first input. */
    double silence() {
        return lastArrival == 0 ? 0 : (System.nanoTime() - lastArrival) / 1e9;
    }

    /** One line for people. */
    synchronized String line() {
        if (source == null) {
            return "waiting for input";
        }
        double silent = silence();
        return Text.format("%.0f s   %s   behind by %.1f s   latency %.0f ms, segments %.1f s   %d of %d renditions", now(),
                silent > 2 ? Text.format("no input since %.0f s", silent) : Text.format("%.1f pictures a second", rate),
                behind / 1000, latencyCount > 0 ? latencySum / latencyCount : latency, segmentLatency, made, outputs.size());
    }

    /** What is to be said in the end. */
    synchronized String ending() {
        return Text.format("%d pictures in %.1f s; %.1f s of them are kept, in %d segments", pictures, now(), listedSeconds,
                listed);
    }

    /** All of it as JSON. */
    byte[] json(long bytesRead) {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        try (JsonGenerator json = JsonLines.generator(bytes)) {
            json.writeStartObject();
            writeFields(json, bytesRead);
            json.writeEndObject();
        } catch (IOException impossible) {
            throw new IllegalStateException(impossible);
        }
        return bytes.toByteArray();
    }

    synchronized void writeFields(JsonGenerator json, long bytesRead) throws IOException {
        json.writeStringField("state", state);
        json.writeStringField("source", name);
        number(json, "seconds", now());
        if (source != null) {
            json.writeNumberField("width", source.width());
            json.writeNumberField("height", source.height());
            number(json, "frameRate", source.frameRate());
            json.writeStringField("sound", sound == null ? "" : sound.codec());
        }
        number(json, "withoutInputSeconds", silence());
        json.writeNumberField("bytesRead", bytesRead);
        json.writeNumberField("pictures", pictures);
        number(json, "picturesPerSecond", silence() > 2 ? 0 : rate);
        number(json, "latencyMilliseconds", latency > 0 || latencyCount == 0 ? latency : latencySum / latencyCount);
        number(json, "largestLatencyMilliseconds", Math.max(largestLatency, latencyMost));
        number(json, "segmentLatencySeconds", segmentLatency);
        number(json, "largestSegmentLatencySeconds", largestSegmentLatency);
        number(json, "behindMilliseconds", behind);
        number(json, "busy", busy);
        json.writeNumberField("jumps", jumps);
        json.writeNumberField("damagedPackets", damaged);
        json.writeNumberField("timesShed", shed);
        number(json, "silentSeconds", silent);
        json.writeNumberField("soundUnitsLeftOut", soundLeftOut);
        json.writeNumberField("firstSegment", first);
        json.writeNumberField("segments", listed);
        number(json, "segmentSeconds", listedSeconds);
        json.writeNumberField("requests", requests.get());
        json.writeNumberField("openRequests", connections.get());
        json.writeNumberField("bytesServed", bytesServed.get());
        json.writeArrayFieldStart("renditions");
        for (int i = 0; transcoder != null && i < outputs.size(); i++) {
            Transcoder.RenditionStatistics done = transcoder.statistics().renditions().get(i);
            json.writeStartObject();
            json.writeStringField("size", outputs.get(i).size());
            json.writeBooleanField("made", i >= outputs.size() - made);
            json.writeNumberField("pictures", done.pictures());
            json.writeNumberField("skipped", done.skipped());
            json.writeNumberField("failed", done.failed());
            if (lost.reason(i) != null) {
                json.writeStringField("failure", lost.reason(i));
            }
            json.writeNumberField("bytes", done.bytes());
            json.writeNumberField("targetBitrate", done.rendition().bitrate());
            number(json, "encodeMilliseconds", done.pictures() == 0 ? 0
                    : Summary.milliseconds(done));
            json.writeEndObject();
        }
        json.writeEndArray();
    }

    private static void number(JsonGenerator json, String field, double value) throws IOException {
        json.writeFieldName(field);
        json.writeNumber(Text.format("%.3f", value));
    }
}
