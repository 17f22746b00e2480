package com.kelvane.media.spark;

import com.kelvane.media.MediaException;
import com.kelvane.media.Transcoder;
import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.MediaFile;
import com.kelvane.media.tool.input.Timeline;
import com.kelvane.media.tool.input.VideoSource;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.Hls;
import com.kelvane.media.tool.output.MediaPlaylist;
import com.kelvane.media.tool.output.Products;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.Results;
import com.kelvane.media.tool.output.Workspace;
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
        if (plan.chunks() == 1) {
            try (VideoSource source = new VideoSource(track, timeline);
                    Results results = results(ladder, track, null, workspace)) {
                ChunkTranscoding transcoding = new ChunkTranscoding(ladder, track.frameRate(),
                        plan.settings().segmentSeconds(), timeline::shows, results);
                Transcoder.Statistics statistics = transcoding.run(source::next);
                access.check();
                int lost = (int) Math.max(0, source.count() - statistics.pictures());
                return finish(ladder, transcoding, results, lost,
                        source.damage(transcoding.last() / 1000.0 + 1 / track.frameRate()), workspace, publisher);
            }
        }
        double from = number == 0 ? -1 : 1000 * plan.begin(number);
        double until = number == plan.chunks() - 1 ? Double.POSITIVE_INFINITY : 1000 * plan.begin(number + 1);
        try (ChunkSource source = new ChunkSource(track, timeline, new ParameterSets(plan.configuration()), from,
                until);
                Results results = results(ladder, track, null, workspace)) {
            ChunkTranscoding transcoding = new ChunkTranscoding(ladder, track.frameRate(),
                    plan.settings().segmentSeconds(), source::shows, results);
            transcoding.run(source::next);
            access.check();
            if (source.count() == 0) {
                if (source.damage() != null || !source.readAny() && from < 1000 * track.seconds() - 1000) {
                    throw new BadInput("nothing could be read there: %s",
                            source.damage() == null ? "the file ends before" : source.damage());
                }
                return new Part(number, 0, 0, 0, null, null, null, new ArrayList<>(), 0, 0);
            }
            return finish(ladder, transcoding, results, Math.max(0, source.count() - transcoding.pictures()), source.damage(),
                    workspace, publisher);
        }
    }

    private Part finish(Ladder ladder, ChunkTranscoding transcoding, Results results, int lost, String damage,
                        Workspace workspace, Publisher publisher) throws IOException {
        if (transcoding.pictures() == 0) {
            throw new BadInput("no picture could be decoded%s", damage == null ? "" : ": " + damage);
        }
        results.finish();
        ArrayList<Part.Track> tracks = new ArrayList<>();
        for (RenditionOutput output : ladder.outputs()) {
            tracks.add(publish(output.size(), new byte[0], 0, workspace, publisher));
        }
        return new Part(number, transcoding.begin(), transcoding.pictures(), lost, damage, transcoding.lacking(), null,
                tracks, 0, 0);
    }

    private Part sound(MediaFile file, InputAccess access, Workspace workspace, Publisher publisher) throws IOException {
        VideoTrack track = VideoTrack.of(file);
        AudioTrack audio = soundTrack(file);
        Timeline timeline = track.timeline(audio, 0, Double.POSITIVE_INFINITY);
        ArrayList<Part.Track> tracks = new ArrayList<>();
        try (AacSource source = AacSource.open(audio, timeline);
                Results results = results(new Ladder(List.of(), List.of()), track, source, workspace)) {
            if (results.hasSound()) {
                results.finish();
                access.check();
                tracks.add(publish(Hls.SOUND, source.configuration(), source.channels(), workspace, publisher));
            }
        }
        return new Part(number, 0, 0, 0, null, null, null, tracks, 0, 0);
    }

    private AudioTrack soundTrack(MediaFile file) {
        return plan.soundTrack() < 0 ? null : AudioTrack.all(file).get(plan.soundTrack());
    }

    private Results results(Ladder ladder, VideoTrack track, AacSource sound, Workspace workspace) throws IOException {
        return new Results(ladder.outputs(), new Products(false, false, plan.settings().segmentSeconds(), true),
                track.meaning(), sound, workspace);
    }

    /** Moves a track's segments into the results, under names by chunk. */
    private Part.Track publish(String folder, byte[] configuration, int channels, Workspace workspace, Publisher publisher)
            throws IOException {
        Path made = workspace.path(folder);
        MediaPlaylist playlist = MediaPlaylist.read(made);
        ArrayList<Part.Segment> segments = new ArrayList<>();
        for (int i = 0; i < playlist.durations().size(); i++) {
            String name = number == Part.SOUND ? Text.format("%05d.m4s", i) : Text.format("%05d-%03d.m4s", number, i);
            publisher.put(made.resolve(i + ".m4s"), folder + "/" + name);
            segments.add(new Part.Segment(name, playlist.durations().get(i), playlist.sizes().get(i)));
        }
        return new Part.Track(folder, Files.readAllBytes(made.resolve(Hls.INITIALISATION)), configuration, channels, segments);
    }
}
