package com.kelvane.media.spark;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.List;
import org.apache.hadoop.conf.Configuration;
import org.apache.hadoop.fs.FileAlreadyExistsException;
import org.apache.hadoop.fs.FileSystem;
import org.apache.hadoop.fs.LocalFileSystem;
import org.apache.hadoop.fs.Path;

/**
 * Puts files into the results of one input. A file has its final name when it is whole and not before. Any number of attempts
 * may do so for the same part, at once or one after another: they bring the same bytes.
 */
final class Publisher {
    /** Folder of files that are not whole; the driver removes it. Hadoop's own jobs use this name. */
    static final String TEMPORARY = "_temporary";

    private final FileSystem files;
    private final Path folder;
    private final String attempt;

    /** @param attempt a name that no other attempt has */
    Publisher(String folder, String attempt, Configuration configuration) throws IOException {
        this.folder = new Path(folder);
        this.attempt = attempt;
        files = fileSystem(this.folder, configuration);
    }

    /** A folder's file system; one of this machine without the files of checksums that Hadoop puts beside others. */
    static FileSystem fileSystem(Path folder, Configuration configuration) throws IOException {
        FileSystem found = folder.getFileSystem(configuration);
        return found instanceof LocalFileSystem ? ((LocalFileSystem) found).getRaw() : found;
    }

    /** Copies a file of this machine to a name in the folder. */
    void put(java.nio.file.Path file, String name) throws IOException {
        try (InputStream content = Files.newInputStream(file)) {
            put(content, name);
        }
    }

    /** Writes lines of text to a name in the folder. */
    void put(List<String> lines, String name) throws IOException {
        put((String.join("\n", lines) + "\n").getBytes(StandardCharsets.UTF_8), name);
    }

    /** Writes bytes to a name in the folder. */
    void put(byte[] bytes, String name) throws IOException {
        put(new java.io.ByteArrayInputStream(bytes), name);
    }

    private void put(InputStream content, String name) throws IOException {
        Path target = new Path(folder, name);
        Path temporary = new Path(folder, TEMPORARY + "/" + attempt + "-" + name.replace('/', '-'));
        long length;
        try (OutputStream stream = files.create(temporary, true)) {
            length = content.transferTo(stream);
        }
        files.mkdirs(target.getParent());
        boolean renamed;
        try {
            renamed = files.rename(temporary, target);
        } catch (FileAlreadyExistsException byAnotherAttempt) {
            renamed = false;
        }
        if (!renamed) {
            if (!files.exists(target) || files.getFileStatus(target).getLen() != length) {
                throw new IOException(temporary + " could not be renamed to " + target);
            }
            files.delete(temporary, false);
        }
    }
}
