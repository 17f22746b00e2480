package com.kelvane.media.spark;

import com.kelvane.media.MediaException;
import com.kelvane.media.tool.input.MediaFile;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Progress;
import com.kelvane.media.tool.shell.Text;
import java.io.IOException;
import java.io.Serializable;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.stream.IntStream;
import org.apache.hadoop.conf.Configuration;
import org.apache.spark.TaskContext;
import org.apache.spark.api.java.JavaRDD;
import org.apache.spark.api.java.JavaSparkContext;
import org.apache.spark.broadcast.Broadcast;
import org.apache.spark.util.LongAccumulator;
import org.apache.spark.util.SerializableConfiguration;
import scala.Function2;
import scala.collection.Iterator;
import scala.jdk.javaapi.CollectionConverters;
import scala.reflect.ClassTag$;
import scala.runtime.BoxedUnit;

/** Transcodes inputs with a Spark context: looks at their headers, does all their parts as tasks, joins what is whole. */
final class LibraryRun {
    private static final int MOST_FAILURES = 4; // Spark's own default
    private static final int LAST_ATTEMPTS = 10; // seconds that they have to end

    private final JavaSparkContext spark;
    private final Settings settings;
    private final boolean resumes;
    private final Configuration configuration;
    private final Broadcast<SerializableConfiguration> everywhere;
    private final Map<String, OutputFolder> outputs = new HashMap<>(); // by name of the folder
    private final LongAccumulator pictures;
    private boolean failed;
    private boolean damaged;

    /** What looking at an input gave: a plan, or a problem. */
    private record Look(Plan plan, String problem) implements Serializable {
        private static final long serialVersionUID = 1;
    }

    LibraryRun(JavaSparkContext spark, Settings settings, boolean resumes) {
        this.spark = spark;
        this.settings = settings;
        this.resumes = resumes;
        configuration = spark.hadoopConfiguration();
        everywhere = spark.broadcast(new SerializableConfiguration(configuration));
        pictures = spark.sc().longAccumulator("pictures");
    }

    /** Returns the exit code. */
    int run(List<Source> sources) throws IOException {
        List<PartTask> tasks = new ArrayList<>();
        List<Look> looks = look(sources);
        for (int i = 0; i < sources.size(); i++) {
            if (looks.get(i).problem != null) {
                report(sources.get(i).uri() + ": " + looks.get(i).problem);
                continue;
            }
            Plan plan = looks.get(i).plan;
            OutputFolder folder = new OutputFolder(plan, resumes, configuration);
            outputs.put(plan.source().folder(), folder);
            if (folder.complete()) {
                say("%s: complete already", plan.source().uri());
                continue;
            }
            say("%s: %d chunks%s%s%s", plan.source().uri(), plan.chunks(), plan.soundTrack() < 0 ? "" : " and sound",
                    folder.parts().isEmpty() ? "" : ", " + folder.parts().size() + " parts are there already",
                    plan.note() == null ? "" : "; " + plan.note());
            folder.missing().forEach(part -> tasks.add(new PartTask(plan, part)));
            if (folder.missing().isEmpty()) {
                join(folder);
            }
        }
        transcode(tasks);
        return failed ? TranscodeJob.FAILED : damaged ? TranscodeJob.DAMAGED : 0;
    }

    /** Reads the headers of all inputs, on the executors. */
    private List<Look> look(List<Source> sources) {
        spark.setJobDescription("headers of " + inputs(sources.size()));
        Settings wanted = settings;
        Broadcast<SerializableConfiguration> hadoop = everywhere;
        return spark.parallelize(sources, sources.size()).map(source -> {
            try (InputAccess access = new InputAccess(source, hadoop.value().value())) {
                MediaFile file = access.probe();
                return new Look(Plan.of(source, wanted, file), null);
            } catch (Failure | MediaException | IOException problem) {
                return new Look(null, problem instanceof IOException ? Failure.reason((IOException) problem)
                        : problem.getMessage());
            }
        }).collect();
    }

    private void transcode(List<PartTask> tasks) throws IOException {
        if (tasks.isEmpty()) {
            return;
        }
        String description = tasks.size() + " parts of " + inputs(outputs.size());
        spark.setJobDescription(description);
        JavaRDD<PartTask> parts = spark.parallelize(tasks, tasks.size());
        long total = tasks.stream().mapToLong(LibraryRun::milliseconds).sum();
        long[] done = {0, 0, 0}; // milliseconds of video, pictures, milliseconds of work
        Attempts attempts = new Attempts(description);
        spark.sc().addSparkListener(attempts);
        long begin = System.nanoTime();
        try (Progress progress = new Progress(total)) {
            spark.sc().runJob(parts.rdd(), new Work(everywhere, pictures, mostFailures()),
                    CollectionConverters.asScala(IntStream.range(0, tasks.size()).mapToObj(i -> (Object) i).toList()).toSeq(),
                    handler((index, part) -> {
                        done[0] += milliseconds(tasks.get(index));
                        done[1] += part.pictures();
                        done[2] += part.milliseconds();
                        finish(tasks.get(index).plan(), part);
                        progress.update(done[0], done[1], done[0]);
                    }), ClassTag$.MODULE$.apply(Part.class));
        }
        double seconds = (System.nanoTime() - begin) / 1e9;
        say("%d parts in %.2f s: %.0f pictures a second, %.1f times real time; %.2f s of work in the executors", tasks.size(),
                seconds, done[1] / seconds, total / 1000.0 / seconds, done[2] / 1000.0);
        Set<String> touched = new HashSet<>();
        attempts.await(tasks.size(), LAST_ATTEMPTS).forEach(i -> touched.add(tasks.get(i).plan().source().folder()));
        for (String folder : touched) {
            OutputFolder.sweep(folder, configuration);
        }
    }

    private static String inputs(int count) {
        return count == 1 ? "1 input" : count + " inputs";
    }

    private static long milliseconds(PartTask task) {
        Plan plan = task.plan();
        return task.number() == Part.SOUND ? 0 : Math.round(1000 * (plan.chunks() == 1 ? plan.video().seconds()
                : Math.min(plan.begin(task.number() + 1), plan.video().seconds()) - plan.begin(task.number())));
    }

    /** How often Spark tries: on one machine alone once, unless its master says otherwise. */
    private int mostFailures() {
        String master = spark.master();
        return master.startsWith("local") && !master.startsWith("local-cluster")
                ? master.matches("local\\[.*,\\d+]") ? Integer.parseInt(master.replaceAll(".*,|]", "")) : 1
                : spark.getConf().getInt("spark.task.maxFailures", MOST_FAILURES);
    }

    /** The tasks' work. */
    private static final class Work extends scala.runtime.AbstractFunction2<TaskContext, Iterator<PartTask>, Part>
            implements Serializable {
        private static final long serialVersionUID = 1;
        private final Broadcast<SerializableConfiguration> hadoop;
        private final LongAccumulator pictures;
        private final int mostFailures;

        Work(Broadcast<SerializableConfiguration> hadoop, LongAccumulator pictures, int mostFailures) {
            this.hadoop = hadoop;
            this.pictures = pictures;
            this.mostFailures = mostFailures;
        }

        @Override
        public Part apply(TaskContext task, Iterator<PartTask> parts) {
            try {
                Part part = parts.next().run(hadoop.value().value(), task, task.attemptNumber() + 1 >= mostFailures);
                pictures.add(part.pictures());
                return part;
            } catch (IOException problem) {
                throw new java.io.UncheckedIOException(Failure.reason(problem), problem);
            }
        }
    }

    private interface Handler {
        void take(int index, Part part) throws IOException;
    }

    private static Function2<Object, Part, BoxedUnit> handler(Handler handler) {
        return new scala.runtime.AbstractFunction2<>() {
            @Override
            public BoxedUnit apply(Object index, Part part) {
                try {
                    handler.take((Integer) index, part);
                } catch (IOException problem) {
                    throw new java.io.UncheckedIOException(Failure.reason(problem), problem);
                }
                return BoxedUnit.UNIT;
            }
        };
    }

    private void finish(Plan plan, Part part) throws IOException {
        OutputFolder folder = outputs.get(plan.source().folder());
        folder.add(part);
        if (part.problem() != null) {
            report(plan.source().uri() + ", " + plan.name(part.number()) + ": " + part.problem());
        }
        if (folder.missing().isEmpty()) {
            join(folder);
            outputs.remove(plan.source().folder()); // of a library there may be many
        }
    }

    /** Writes the playlists of an input whose parts are all there. */
    private void join(OutputFolder folder) throws IOException {
        Plan plan = folder.plan();
        List<Part> parts = folder.parts();
        boolean done = parts.stream().allMatch(part -> part.problem() == null);
        if (!done) {
            folder.clean(false);
            report(Text.format("%s: %d of %d parts failed; the others are kept for --resume, and no master playlist was"
                    + " written", plan.source().uri(), parts.stream().filter(part -> part.problem() != null).count(),
                    parts.size()));
            return;
        }
        try {
            double seconds = new Playlists(plan, parts, folder.publisher(configuration)).write();
            folder.clean(true);
            damage(plan, parts, seconds);
            say("%s: %.1f s, %d pictures -> %s/master.m3u8", plan.source().uri(), seconds,
                    parts.stream().mapToInt(Part::pictures).sum(), plan.source().folder());
        } catch (Failure problem) {
            folder.clean(false);
            report(plan.source().uri() + ", " + problem.getMessage());
        }
    }

    private void damage(Plan plan, List<Part> parts, double seconds) {
        for (Part part : parts) {
            if (part.lacking() != null) {
                damaged = true;
                say("%s, %s: %s", plan.source().uri(), plan.name(part.number()), part.lacking());
            }
            if (part.lost() > 0 || part.damage() != null) {
                damaged = true;
                say("%s, %s: damaged source: %s; what could be read was kept", plan.source().uri(), plan.name(part.number()),
                        part.damage() != null ? part.damage() : part.lost() + " access units gave no picture");
            }
        }
        if (plan.chunks() > 1 && plan.video().seconds() > seconds + 1) {
            say("%s: damaged source: its video ends after %.1f of the announced %.1f seconds", plan.source().uri(), seconds,
                    plan.video().seconds());
        }
    }

    private void say(String format, Object... values) {
        Progress.clear();
        Caller.OUTPUT.println(Text.format(format, values));
    }

    private void report(String problem) {
        failed = true;
        Progress.clear();
        Caller.ERRORS.println("kelvane transcode: " + problem.strip().replaceAll("\\s*\\R\\s*", " "));
    }
}
