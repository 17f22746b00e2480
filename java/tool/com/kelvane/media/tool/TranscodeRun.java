package com.kelvane.media.tool;

import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.Timeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Comparison;
import com.kelvane.media.tool.output.ContactSheet;
import com.kelvane.media.tool.output.Page;
import com.kelvane.media.tool.output.Products;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.Results;
import com.kelvane.media.tool.output.RunReport;
import com.kelvane.media.tool.output.SegmentKeys;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.packager.LadderWriter;
import com.kelvane.media.tool.packager.MediaPlaylist;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.packager.VodPlaylists;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.JsonLines;
import com.kelvane.media.tool.shell.Progress;
import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.List;

/** One run of `kelvane transcode`, from a source to published results. */
final class TranscodeRun {
    private final VideoTrack track;
    private final AudioTrack audio;
    private final double start;
    private final double length;
    private final Timeline timeline;
    private final List<Rendition> wanted;
    private final List<RenditionOutput> outputs;
    private final int threads;
    private final ResultOptions made;
    private final Products products;
    private final Workspace workspace;
    private Transcoding transcoding;
    private Comparison comparison;

    /**
     * @param audio the sound, or null
     * @param start seconds from the source's beginning
     * @param length seconds, infinite up to the source's end
     * @param wanted the renditions with all their settings
     * @param threads that decode and encode
     * @param outputs their files
     */
    TranscodeRun(VideoTrack track, AudioTrack audio, double start, double length, List<Rendition> wanted, int threads,
                 List<RenditionOutput> outputs, ResultOptions made, Workspace workspace) throws IOException {
        this.track = track;
        this.audio = audio;
        this.start = start;
        this.length = length;
        this.wanted = wanted;
        this.threads = threads;
        this.outputs = outputs;
        this.made = made;
        this.workspace = workspace;
        products = made.products();
        timeline = track.timeline(audio, start, length);
    }

    /** Returns whether the results are whole: no encoder failed at a picture. */
    boolean run(boolean compares) throws IOException {
        String damage;
        int accessUnits;
        List<MediaPlaylist> playlists = new ArrayList<>();
        LadderWriter ladder = products.hls()
                ? new LadderWriter(products.segmentSeconds(), 0, Names::segment, workspace::put) : null;
        try (AacSource heard = audio == null ? null : AacSource.open(audio, timeline);
                Results files = new Results(outputs, products, track.meaning(), 0, heard, ladder, workspace);
                VideoSource source = new VideoSource(track, timeline)) {
            transcoding = new Transcoding(track, timeline, outputs.stream().map(RenditionOutput::frameRate).toList(),
                    products.hls() ? new SegmentKeys(products.segmentSeconds(), 0) : null, files);
            double left = Math.max(0, track.seconds() - start);
            transcoding.run(wanted, threads, source, left > 0 || Double.isInfinite(length) ? Math.min(left, length) : length);
            checkProduced();
            Progress.stage("writing the files");
            files.finish(transcoding.shown().last() + 1000 / track.frameRate());
            accessUnits = source.count();
            damage = source.damage(transcoding.shown().last() / 1000.0 + 1 / track.frameRate());
            if (ladder != null) {
                playlists = writeLadder(ladder, heard);
            }
        }
        double seconds = transcoding.shown().seconds(track.frameRate());
        if (compares) {
            Progress.stage("comparing with the source");
            try (VideoSource source = new VideoSource(track, timeline)) {
                comparison = new Comparison(track, source, outputs, products, transcoding.figures(),
                        transcoding.times().moments(), workspace);
            }
            if (comparison.grid() != null) {
                drawSheet(seconds);
            }
        }
        List<String> published = new ArrayList<>(made.folders(outputs));
        published.addAll(made.files(outputs));
        published.removeIf(name -> !made.isReport(name) && !Files.exists(workspace.path(name)));
        RunReport report = new RunReport(track, audio, start, seconds, transcoding.shown().count(), transcoding.statistics(),
                outputs, transcoding.figures(), transcoding.lost(), comparison, playlists, transcoding.seconds(), transcoding.cpuSeconds(),
                accessUnits, damage, published);
        report.write(workspace.path(RunReport.FILE));
        new Page(report).write(workspace.path(Page.FILE), ResultOptions.SHEET);
        workspace.publish(published);
        Progress.clear();
        List<String> lacking = transcoding.lost().lines(outputs.stream().map(RenditionOutput::size).toList());
        if (JsonLines.isOn()) {
            JsonLines.print("result", report::writeFields);
        } else {
            summarise(seconds);
            Summary.notes(accessUnits, transcoding.statistics().pictures(), damage, comparison);
            lacking.forEach(line -> Summary.line("%s", line));
        }
        return lacking.isEmpty();
    }

    private void checkProduced() {
        Transcoder.Statistics statistics = transcoding.statistics();
        if (transcoding.shown().count() == 0) {
            double end = statistics.pictures() == 0 ? track.seconds()
                    : start + transcoding.last() / 1000.0 + 1 / track.frameRate();
            throw start > 0 && end <= start ? new Failure("%s ends after %.1f seconds; begin earlier with --start",
                    track.path(), end) : new Failure("no picture of %s could be decoded", track.path());
        }
        for (Transcoder.RenditionStatistics rendition : statistics.renditions()) {
            if (rendition.pictures() == 0) {
                throw new Failure("pictures were decoded but OpenH264 encoded none for %dx%d; change its size, bit rate or"
                        + " quantisers", rendition.rendition().width(), rendition.rendition().height());
            }
        }
    }

    /** Writes the playlists; returns those of the renditions and, where there is sound, that of the sound. */
    private List<MediaPlaylist> writeLadder(LadderWriter ladder, AacSource heard) throws IOException {
        List<LadderWriter.Track> tracks = new ArrayList<>(ladder.renditions());
        List<VodPlaylists.Rendition> renditions = new ArrayList<>();
        for (int i = 0; i < outputs.size(); i++) {
            RenditionOutput output = outputs.get(i);
            renditions.add(new VodPlaylists.Rendition(tracks.get(i), track.meaning().shownSize(output.width(), output.height()),
                    output.frameRate()));
            if (!tracks.get(i).segments().isCutLike(tracks.get(0).segments())) {
                Summary.line("%s is not cut into segments at the times of %s, as pictures are missing; players may stutter"
                        + " where they change between the two", output.size(), outputs.get(0).size());
            }
        }
        LadderWriter.Track sound = ladder.sound();
        VodPlaylists.write(renditions, sound, sound == null ? 0 : heard.channels(),
                workspace::put);
        if (sound != null) {
            tracks.add(sound);
        }
        return tracks.stream().map(LadderWriter.Track::segments).toList();
    }

    private void drawSheet(double seconds) throws IOException {
        List<ContactSheet.Label> labels = new ArrayList<>();
        labels.add(new ContactSheet.Label("source", List.of(track.width() + "x" + track.height(),
                Text.format("%.2f pictures/s", track.frameRate()))));
        for (int i = 0; i < outputs.size(); i++) {
            labels.add(Summary.label(outputs.get(i).size(), transcoding.statistics().renditions().get(i).bytes(), seconds,
                    comparison.psnr(i)));
        }
        ContactSheet.draw(track.path().getFileName().toString(), comparison.grid(), comparison.cellHeights(),
                track.meaning().rotation(), labels, transcoding.times().moments(), workspace.path(ResultOptions.SHEET));
    }

    private void summarise(double seconds) {
        Summary.table(transcoding.statistics(), seconds, comparison);
        int pictures = transcoding.shown().count();
        Summary.line("%d pictures, %.1f s of video, in %.2f s: %.0f pictures a second, %.1f times real time; %.2f s of CPU in"
                + " %s", pictures, seconds, transcoding.seconds(), pictures / transcoding.seconds(),
                seconds / transcoding.seconds(), transcoding.cpuSeconds(),
                threads == 1 ? "the transcoding thread" : "the " + threads + " transcoding threads");
    }
}
