package com.kelvane.media.tool.output;

import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.nio.file.DirectoryNotEmptyException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.util.List;
import java.util.stream.Stream;

/**
 * A temporary folder inside the result directory, where everything is written until it is complete; results move to
 * their final names by rename. Whatever else lies in it goes with it, also when the virtual machine is interrupted.
 */
public final class Workspace implements AutoCloseable {
    private static volatile boolean interrupted;

    private final Path directory;
    private final Path existingAncestor;
    private final Path folder;
    private final Thread hook = new Thread(this::interrupt);
    private boolean published;

    /** Makes the directory if need be. */
    public Workspace(Path directory) {
        this.directory = directory;
        Path ancestor = directory;
        while (!Files.exists(ancestor)) {
            ancestor = ancestor.getParent();
        }
        existingAncestor = ancestor;
        try {
            Files.createDirectories(directory);
            folder = Files.createTempDirectory(directory, ".kelvane-");
        } catch (IOException unwritable) {
            removeMadeDirectories();
            throw new Failure("cannot write in %s (%s); name another directory with -o", directory,
                    Failure.reason(unwritable));
        }
        Runtime.getRuntime().addShutdownHook(hook);
    }

    /** Whether one of these files in a directory is one that is only to be read, by whatever name. */
    public static boolean wouldReplace(Path source, Path directory, List<String> names) throws IOException {
        for (String name : names) {
            Path result = directory.resolve(name);
            if (Files.exists(result) && Files.isSameFile(result, source)) {
                return true;
            }
        }
        return false;
    }

    public static boolean interrupted() {
        return interrupted;
    }

    public Path folder() {
        return folder;
    }

    public Path path(String name) {
        return folder.resolve(name);
    }

    /** Moves finished files to their final names. */
    public synchronized void publish(List<String> names) throws IOException {
        if (interrupted) {
            throw new IOException("interrupted");
        }
        published = true;
        for (String name : names) {
            Files.move(path(name), directory.resolve(name), StandardCopyOption.ATOMIC_MOVE);
        }
    }

    @Override
    public void close() {
        try {
            Runtime.getRuntime().removeShutdownHook(hook);
        } catch (IllegalStateException shuttingDown) {
            return;
        }
        remove();
    }

    private void interrupt() {
        interrupted = true;
        MediaProgram.endAll();
        remove();
        Progress.clear();
        System.err.println(published ? "interrupted" : "interrupted; nothing was kept");
    }

    private synchronized void remove() {
        try (Stream<Path> files = Files.list(folder)) {
            for (Path file : (Iterable<Path>) files::iterator) {
                Files.deleteIfExists(file);
            }
            Files.delete(folder);
        } catch (IOException left) {
            System.err.println("could not remove the temporary folder " + folder + ": " + Failure.reason(left));
        }
        if (!published) {
            removeMadeDirectories();
        }
    }

    private void removeMadeDirectories() {
        try {
            for (Path made = directory; !made.equals(existingAncestor); made = made.getParent()) {
                if (Files.exists(made)) {
                    Files.delete(made);
                }
            }
        } catch (DirectoryNotEmptyException inUse) {
            // Someone else put files there meanwhile.
        } catch (IOException kept) {
            System.err.println("could not remove " + Failure.reason(kept));
        }
    }
}
