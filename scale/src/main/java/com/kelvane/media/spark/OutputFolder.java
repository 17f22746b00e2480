package com.kelvane.media.spark;

import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.shell.Failure;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.stream.Collectors;
import org.apache.hadoop.conf.Configuration;
import org.apache.hadoop.fs.FileStatus;
import org.apache.hadoop.fs.FileSystem;
import org.apache.hadoop.fs.Path;

/** The results of one input, as the driver sees them: what is there already, and what is to be done in the end. */
final class OutputFolder {
    private static final String PLAN = "_plan";

    private final Plan plan;
    private final Path folder;
    private final FileSystem files;
    private final Map<Integer, Part> parts = new TreeMap<>();
    private boolean complete;

    /**
     * Prepares the folder.
     *
     * @param resumes whether to keep what an earlier job made of the same input with the same settings
     */
    OutputFolder(Plan plan, boolean resumes, Configuration configuration) throws IOException {
        this.plan = plan;
        folder = new Path(plan.source().folder());
        files = Publisher.fileSystem(folder, configuration);
        Path described = new Path(folder, PLAN);
        if (files.exists(folder) && files.listStatus(folder).length > 0) {
            if (!files.exists(described)) {
                throw new Failure("%s holds something else than results of a job, and is not replaced; name another directory"
                        + " with -o", folder);
            }
            if (resumes && text(described).equals(plan.fingerprint())) {
                complete = files.exists(new Path(folder, Names.MASTER));
                readParts();
                return;
            }
            files.delete(new Path(folder, Names.MASTER), false); // so that what is half deleted has none
            files.delete(folder, true);
        }
        files.mkdirs(folder);
        new Publisher(folder.toString(), "plan", configuration).put(plan.fingerprint().getBytes(StandardCharsets.UTF_8), PLAN);
    }

    private void readParts() throws IOException {
        Path done = new Path(folder, PartTask.doneFolder());
        if (complete || !files.exists(done)) {
            return;
        }
        for (FileStatus remembered : files.listStatus(done)) {
            Part part = Part.read(List.of(text(remembered.getPath()).split("\n")));
            if (part != null) {
                parts.put(part.number(), part);
            }
        }
    }

    private String text(Path file) throws IOException {
        try (BufferedReader reader = new BufferedReader(new InputStreamReader(files.open(file), StandardCharsets.UTF_8))) {
            return reader.lines().collect(Collectors.joining("\n", "", "\n"));
        }
    }

    Plan plan() {
        return plan;
    }

    /** Whether an earlier job finished it. */
    boolean complete() {
        return complete;
    }

    /** What is still to be done. */
    List<Integer> missing() {
        return complete ? List.of() : plan.parts().stream().filter(part -> !parts.containsKey(part)).toList();
    }

    /** Takes what a task reports. */
    void add(Part part) {
        parts.put(part.number(), part);
    }

    /** The parts that are done or have failed, the sound first. */
    List<Part> parts() {
        return List.copyOf(parts.values());
    }

    /** Removes what no player needs; the description of what was asked for stays, for a job that resumes. */
    void clean(boolean whole) throws IOException {
        clean(folder, files, whole);
    }

    /** Does so once more, behind attempts that outlived their parts' end. */
    static void sweep(String folder, Configuration configuration) throws IOException {
        Path path = new Path(folder);
        FileSystem files = Publisher.fileSystem(path, configuration);
        clean(path, files, files.exists(new Path(path, Names.MASTER)));
    }

    private static void clean(Path folder, FileSystem files, boolean whole) throws IOException {
        files.delete(new Path(folder, Publisher.TEMPORARY), true);
        if (whole) {
            files.delete(new Path(folder, PartTask.doneFolder()), true);
        }
    }

    /** A writer of the folder's files. */
    Publisher publisher(Configuration configuration) throws IOException {
        return new Publisher(folder.toString(), "driver", configuration);
    }
}
