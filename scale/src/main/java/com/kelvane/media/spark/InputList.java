package com.kelvane.media.spark;

import com.kelvane.media.tool.shell.Failure;
import java.io.BufferedReader;
import java.io.FileNotFoundException;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import org.apache.hadoop.conf.Configuration;
import org.apache.hadoop.fs.FileStatus;
import org.apache.hadoop.fs.FileSystem;
import org.apache.hadoop.fs.Path;

/** The inputs of a job, from files, patterns, folders and lists. */
final class InputList {
    // What is taken from a folder; a file that is named is taken whatever its name.
    private static final Set<String> EXTENSIONS = Set.of("mp4", "m4v", "mov", "mkv", "flv", "ts", "h264", "264");

    private final Configuration configuration;
    private final String output;
    private final Map<String, Source> byFolder = new LinkedHashMap<>();

    InputList(String output, Configuration configuration) {
        this.configuration = configuration;
        this.output = output;
    }

    /** Adds a file, a pattern of Hadoop's or what a folder holds. */
    void add(String given) throws IOException {
        Path path = new Path(given);
        FileSystem files = path.getFileSystem(configuration);
        FileStatus[] found = files.globStatus(path);
        if (found == null || found.length == 0) {
            throw new Failure("%s: no such file", given);
        }
        for (FileStatus status : found) {
            if (status.isDirectory()) {
                addFolder(files, status.getPath());
            } else {
                add(status);
            }
        }
    }

    private void addFolder(FileSystem files, Path folder) throws IOException {
        FileStatus[] entries = files.listStatus(folder);
        int before = byFolder.size();
        for (FileStatus entry : entries) {
            String name = entry.getPath().getName();
            if (entry.isFile() && !name.matches("[._].*") && EXTENSIONS.contains(extension(name))) {
                add(entry);
            }
        }
        if (byFolder.size() == before) {
            throw new Failure("%s holds no file that ends in %s", folder, String.join(", ",
                    EXTENSIONS.stream().map(name -> "." + name).sorted().toList()));
        }
    }

    private void add(FileStatus status) {
        String name = status.getPath().getName();
        String folder = output + "/" + (extension(name).isEmpty() ? name : name.substring(0, name.lastIndexOf('.')));
        Source source = new Source(status.getPath().toString(), folder, status.getLen(), status.getModificationTime());
        Source other = byFolder.putIfAbsent(folder, source);
        if (other != null && !other.uri().equals(source.uri())) {
            throw new Failure("%s and %s would have their results in the same folder, %s; give them to jobs of their own",
                    other.uri(), source.uri(), folder);
        }
    }

    private static String extension(String name) {
        return name.lastIndexOf('.') > 0 ? name.substring(name.lastIndexOf('.') + 1).toLowerCase(java.util.Locale.ROOT) : "";
    }

    /** Adds what a file lists, one a line. */
    void addList(String given) throws IOException {
        Path path = new Path(given);
        List<String> lines = new ArrayList<>();
        try (BufferedReader reader = new BufferedReader(new InputStreamReader(path.getFileSystem(configuration).open(path),
                StandardCharsets.UTF_8))) {
            reader.lines().map(String::strip).filter(line -> !line.isEmpty() && !line.startsWith("#")).forEach(lines::add);
        } catch (FileNotFoundException missing) {
            throw new Failure("%s: no such file", given);
        }
        for (String line : lines) {
            add(line);
        }
    }

    List<Source> sources() {
        return List.copyOf(byFolder.values());
    }
}
