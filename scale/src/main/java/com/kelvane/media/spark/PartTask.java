package com.kelvane.media.spark;

import com.kelvane.media.MediaException;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.MediaFile;
import com.kelvane.media.tool.input.Timeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Products;
import com.kelvane.media.tool.output.Results;
import com.kelvane.media.tool.output.SegmentKeys;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.packager.LadderWriter;
import com.kelvane.media.tool.packager.MediaPlaylist;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.io.Serializable;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.apache.hadoop.conf.Configuration;
import org.apache.spark.SparkEnv;
import org.apache.spark.TaskContext;
import org.apache.spark.util.Utils;

/**
 * The work on one part of an input, a task of the job. What it makes depends on the input and the settings alone.
 *
 * @param plan of the whole input
 * @param number of the part
 */
record PartTask(Plan plan, int number) implements Serializable {
    private static final long serialVersionUID = 1;
    private static final String DONE = "_done/";

    /** The input cannot be read or decoded here, which is no fault of the machine. */
    private static final class BadInput extends RuntimeException {
        private static final long serialVersionUID = 1;

        BadInput(String message, Object... values) {
            super(Text.format(message, values));
        }
    }

    /** Where a finished part is remembered. */
    static String doneName(int number) {
        return DONE + (number == Part.SOUND ? "sound" : Text.format("%05d", number));
    }

    static String doneFolder() {
        return DONE;
    }

    /**
     * Does the work.
     *
     * @param last whether Spark makes no further attempt: then what is wrong with the input is the result
     */
    Part run(Configuration configuration, TaskContext task, boolean last) throws IOException {
        long start = System.nanoTime();
        // In Spark's folder for temporary files, which Spark removes in the end; of its own, as a workspace removes what others
        // have left beside it.
        Path scratch = Files.createTempDirectory(Path.of(Utils.getLocalDir(SparkEnv.get().conf())).toAbsolutePath(), "part-");
        try (InputAccess access = new InputAccess(plan.source(), configuration);
                Workspace workspace = new Workspace(scratch)) {
            Publisher publisher = new Publisher(plan.source().folder(), SparkEnv.get().conf().getAppId() + "-"
                    + task.taskAttemptId(), configuration);
            Part part;
            try {
                MediaFile file = plan.file(access);
                part = number == Part.SOUND ? sound(file, access, workspace, publisher)
                        : chunk(file, access, workspace, publisher);
            } catch (BadInput bad) {
                access.check();
                return Part.failed(number, bad.getMessage());
            } catch (Failure | MediaException problem) {
                if (last) {
                    return Part.failed(number, problem.getMessage());
                }
                throw problem;
            }
            Part done = new Part(number, part.begin(), part.pictures(), part.lost(), part.damage(), part.lacking(), null,
                    part.tracks(), access.bytesRead(), (System.nanoTime() - start) / 1_000_000);
            publisher.put(done.lines(), doneName(number));
            return done;
        } finally {
            scratch.toFile().delete();
        }
    }

    private Part chunk(MediaFile file, InputAccess access, Workspace workspace, Publisher publisher) throws IOException {
        VideoTrack track = VideoTrack.of(file);
        Timeline timeline = track.timeline(soundTrack(file), 0, Double.POSITIVE_INFINITY);
        Ladder ladder = Ladder.of(track, plan.settings());
        // The first chunk begins where the ladder does, the others with their first pictures.
        double origin = number == 0 ? 0 : Double.NaN;
        SegmentKeys keys = new SegmentKeys(plan.settings().segmentSeconds(), origin);
        LadderWriter writer = writer(origin, workspace);
        if (plan.chunks() == 1) {
            try (VideoSource source = new VideoSource(track, timeline);
                    Results results = results(ladder, track, null, writer, workspace)) {
                ChunkTranscoding transcoding = new ChunkTranscoding(ladder, track.frameRate(), keys, timeline::shows, results);
                Transcoder.Statistics statistics = transcoding.run(source::next);
                access.check();
                int lost = (int) Math.max(0, source.count() - statistics.pictures());
                String damage = source.damage(transcoding.last() / 1000.0 + 1 / track.frameRate());
                checkDecoded(transcoding, damage);
                results.finish(transcoding.last() + 1000 / track.frameRate());
                return part(transcoding, writer, lost, damage, workspace, publisher);
            }
        }
        double from = number == 0 ? -1 : 1000 * plan.begin(number);
        double until = number == plan.chunks() - 1 ? Double.POSITIVE_INFINITY : 1000 * plan.begin(number + 1);
        try (ChunkSource source = new ChunkSource(track, timeline, plan.configuration(), from, until);
                Results results = results(ladder, track, null, writer, workspace)) {
            ChunkTranscoding transcoding = new ChunkTranscoding(ladder, track.frameRate(), keys, source::shows, results);
            transcoding.run(source::next);
            access.check();
            if (source.count() == 0) {
                if (source.damage() != null || !source.readAny() && from < 1000 * track.seconds() - 1000) {
                    throw new BadInput("nothing could be read there: %s",
                            source.damage() == null ? "the file ends before" : source.damage());
                }
                return new Part(number, 0, 0, 0, null, null, null, new ArrayList<>(), 0, 0);
            }
            checkDecoded(transcoding, source.damage());
            results.finish(Double.isInfinite(source.end()) ? transcoding.last() + 1000 / track.frameRate() : source.end());
            return part(transcoding, writer, Math.max(0, source.count() - transcoding.pictures()), source.damage(), workspace,
                    publisher);
        }
    }

    private static void checkDecoded(ChunkTranscoding transcoding, String damage) {
        if (transcoding.pictures() == 0) {
            throw new BadInput("no picture could be decoded%s", damage == null ? "" : ": " + damage);
        }
    }

    private Part part(ChunkTranscoding transcoding, LadderWriter writer, int lost, String damage, Workspace workspace,
                      Publisher publisher) throws IOException {
        ArrayList<Part.Track> tracks = new ArrayList<>();
        for (LadderWriter.Track track : writer.renditions()) {
            tracks.add(publish(track, 0, workspace, publisher));
        }
        return new Part(number, transcoding.begin(), transcoding.pictures(), lost, damage, transcoding.lacking(), null,
                tracks, 0, 0);
    }

    private Part sound(MediaFile file, InputAccess access, Workspace workspace, Publisher publisher) throws IOException {
        VideoTrack track = VideoTrack.of(file);
        AudioTrack audio = soundTrack(file);
        Timeline timeline = track.timeline(audio, 0, Double.POSITIVE_INFINITY);
        LadderWriter writer = writer(0, workspace);
        // Where a container tells only how long all of it is, the pictures end there at the latest.
        double whole = MediaFile.number(file.format(), "duration");
        double end = track.seconds() > 0 ? timeline.at(track.start()) + 1000 * track.seconds() : 0;
        end = whole > 0 ? Math.min(end, timeline.at(1000 * (file.start() + whole))) : end;
        // Where the segments of pictures begin, if there are key pictures.
        for (int chunk = 0; chunk < plan.chunks(); chunk++) {
            double next = chunk == plan.chunks() - 1 ? end : Math.min(end, 1000 * plan.begin(chunk + 1));
            for (double time = 1000 * plan.begin(chunk); time < next - 500 / track.frameRate();
                    time += 1000 * plan.settings().segmentSeconds()) {
                writer.cutSoundAt(time);
            }
        }
        ArrayList<Part.Track> tracks = new ArrayList<>();
        try (AacSource source = AacSource.open(audio, timeline);
                Results results = results(new Ladder(List.of(), List.of()), track, source, writer, workspace)) {
            results.finish(end);
            access.check();
            if (writer.sound() != null) {
                tracks.add(publish(writer.sound(), source.channels(), workspace, publisher));
            }
        }
        return new Part(number, 0, 0, 0, null, null, null, tracks, 0, 0);
    }

    private AudioTrack soundTrack(MediaFile file) {
        return plan.soundTrack() < 0 ? null : AudioTrack.all(file).get(plan.soundTrack());
    }

    private LadderWriter writer(double origin, Workspace workspace) {
        return new LadderWriter(plan.settings().segmentSeconds(), origin,
                i -> number == Part.SOUND ? Text.format("%05d.m4s", i) : Text.format("%05d-%03d.m4s", number, i), workspace::put);
    }

    private Results results(Ladder ladder, VideoTrack track, AacSource sound, LadderWriter writer, Workspace workspace)
            throws IOException {
        return new Results(ladder.outputs(), new Products(false, false, plan.settings().segmentSeconds()), track.meaning(), 0,
                sound, writer, workspace);
    }

    /** Moves a track's segments into the results. */
    private Part.Track publish(LadderWriter.Track track, int channels, Workspace workspace, Publisher publisher)
            throws IOException {
        ArrayList<Part.Segment> segments = new ArrayList<>();
        for (MediaPlaylist.Entry entry : track.segments().entries()) {
            String name = track.folder() + "/" + entry.name();
            publisher.put(workspace.path(name), name);
            segments.add(new Part.Segment(entry.name(), entry.begin(), entry.seconds(), entry.bytes()));
        }
        return new Part.Track(track.folder(), track.initialisation(), track.codecs(), channels, track.fastest(), segments);
    }
}
