package com.kelvane.media.tool.output;

import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.MediaProgram;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.channels.FileLock;
import java.nio.channels.OverlappingFileLockException;
import java.nio.file.DirectoryNotEmptyException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.stream.Stream;

/**
 * A temporary folder inside the result directory, where everything is written until it is complete; results move to
 * their final names by rename. Whatever else lies in it goes with it, also when the virtual machine is interrupted.
 */
public final class Workspace implements AutoCloseable {
    private static final String PREFIX = ".kelvane-";
    private static final String LOCK = "lock";
    private static final String REPLACED = "replaced ";
    private static final int ATTEMPTS = 10;
    private static volatile boolean interrupted;

    private final Path directory;
    private final Path existingAncestor;
    private final Path folder;
    private final FileChannel lock; // held as long as this process lives, which tells others that the folder is in use
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
            removeAbandoned(directory);
            folder = Files.createTempDirectory(directory, PREFIX);
            lock = FileChannel.open(folder.resolve(LOCK), StandardOpenOption.CREATE, StandardOpenOption.WRITE);
        } catch (IOException unwritable) {
            removeMadeDirectories();
            throw new Failure("cannot write in %s (%s); name another directory with -o", directory,
                    Failure.reason(unwritable));
        }
        try {
            lock.tryLock();
        } catch (IOException noLocks) {
            // Nobody can take it then, and the folder stays where it is.
        }
        Runtime.getRuntime().addShutdownHook(hook);
    }

    /** Removes what runs left behind that were killed. */
    private static void removeAbandoned(Path directory) {
        try (DirectoryStream<Path> folders = Files.newDirectoryStream(directory, PREFIX + "*")) {
            for (Path abandoned : folders) {
                try (FileChannel channel = FileChannel.open(abandoned.resolve(LOCK), StandardOpenOption.WRITE);
                        FileLock free = channel.tryLock()) {
                    if (free != null) {
                        empty(abandoned);
                    }
                } catch (IOException | OverlappingFileLockException notOurs) {
                    // Somebody else's, or none of ours.
                }
            }
        } catch (IOException unreadable) {
            // It is only a courtesy.
        }
    }

    private static void empty(Path folder) throws IOException {
        try (Stream<Path> files = Files.list(folder)) {
            for (Path file : (Iterable<Path>) files::iterator) {
                if (Files.isDirectory(file, LinkOption.NOFOLLOW_LINKS)) {
                    empty(file);
                } else {
                    Files.deleteIfExists(file);
                }
            }
        }
        Files.delete(folder);
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

    /** Whether a file that is only to be read lies in one of these folders of a directory. */
    public static boolean holds(Path directory, List<String> folders, Path source) throws IOException {
        for (String folder : folders) {
            Path result = directory.resolve(folder);
            if (Files.exists(result) && source.toRealPath().startsWith(result.toRealPath())) {
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

    /** Writes a file, and makes the folder that its name begins with. */
    public void put(String name, byte[] contents) throws IOException {
        Files.createDirectories(path(name).getParent());
        Files.write(path(name), contents);
    }

    /**
     * Moves finished files and folders to their final names, in this order. What is replaced goes away with the temporary
     * folder; the last one goes first, so that a list of the others never leads to a mixture of runs.
     */
    public synchronized void publish(List<String> names) throws IOException {
        if (interrupted) {
            throw new IOException("interrupted");
        }
        published = true;
        for (int i = names.size() - 1; i >= 0; i--) {
            Path replaced = directory.resolve(names.get(i));
            if (Files.exists(replaced) && (i == names.size() - 1 || Files.isDirectory(path(names.get(i))))) {
                Files.move(replaced, path(REPLACED + names.get(i)), StandardCopyOption.ATOMIC_MOVE);
            }
        }
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
        Caller.ERRORS.println(published ? "interrupted" : "interrupted; nothing was kept");
    }

    private synchronized void remove() {
        for (int attempt = 1; attempt <= ATTEMPTS; attempt++) {
            try {
                empty(folder);
                lock.close();
                break;
            } catch (NoSuchFileException byOthers) {
                break;
            } catch (IOException left) { // when interrupted, another thread may still make a file
                if (attempt == ATTEMPTS) {
                    Caller.ERRORS.println("could not remove the temporary folder " + folder + ": " + Failure.reason(left));
                }
            }
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
            Caller.ERRORS.println("could not remove " + Failure.reason(kept));
        }
    }
}
