package com.kelvane.media.tool.live;

import com.kelvane.media.tool.output.Page;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.shell.Failure;
import java.io.Closeable;
import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.channels.OverlappingFileLockException;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryNotEmptyException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.util.List;
import java.util.Optional;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.stream.Stream;

/**
 * The directory of a live ladder. Files are there under their names when they are complete; it knows which are its own, and
 * no others are to be served.
 */
final class LiveFolder implements Closeable {
    private static final String LOCK = ".kelvane-live";

    private final Path root;
    private final boolean made;
    private final FileChannel lock;
    private final Set<String> own = ConcurrentHashMap.newKeySet();

    /** Makes the directory if need be, and takes it for this process alone. */
    LiveFolder(Path directory) {
        made = !Files.exists(directory);
        try {
            Files.createDirectories(directory);
            root = directory.toRealPath();
            lock = FileChannel.open(root.resolve(LOCK), StandardOpenOption.CREATE, StandardOpenOption.WRITE,
                    LinkOption.NOFOLLOW_LINKS);
            if (lock.tryLock() == null) {
                throw new OverlappingFileLockException();
            }
            Files.deleteIfExists(root.resolve(Names.MASTER)); // of a run before
            Files.deleteIfExists(root.resolve(Page.FILE));
        } catch (IOException unwritable) {
            throw new Failure("cannot write in %s (%s); name another directory with -o", directory,
                    Failure.reason(unwritable));
        } catch (OverlappingFileLockException inUse) {
            throw new Failure("another process makes a live ladder in %s; name another directory with -o", directory);
        }
    }

    /** Makes an empty folder, also of one that a run before has left. */
    void makeFolder(String name) throws IOException {
        Path folder = root.resolve(name);
        if (Files.exists(folder, LinkOption.NOFOLLOW_LINKS)) {
            if (!Names.isOurs(folder)) {
                throw new Failure("%s holds something else than segments, and is not replaced; name another directory with -o",
                        folder);
            }
            try (Stream<Path> files = Files.list(folder)) {
                for (Path file : (Iterable<Path>) files::iterator) {
                    Files.delete(file);
                }
            }
        }
        Files.createDirectories(folder);
    }

    /** Writes a file, in the place of an older one. */
    void write(String name, byte[] contents) throws IOException {
        Path file = root.resolve(name);
        Path part = file.resolveSibling("." + file.getFileName());
        try {
            Files.write(part, contents);
            Files.move(part, file, StandardCopyOption.ATOMIC_MOVE);
        } catch (IOException failed) {
            Files.deleteIfExists(part);
            throw failed;
        }
        own.add(name);
    }

    void write(String name, String text) throws IOException {
        write(name, text.getBytes(StandardCharsets.UTF_8));
    }

    void delete(String name) throws IOException {
        own.remove(name);
        Files.deleteIfExists(root.resolve(name));
    }

    /** The file of a name, if it is one of this ladder's and lies in its directory. */
    Optional<Path> find(String name) {
        if (!own.contains(name)) {
            return Optional.empty();
        }
        try {
            Path file = root.resolve(name);
            return file.toRealPath().equals(file) ? Optional.of(file) : Optional.empty();
        } catch (IOException gone) {
            return Optional.empty();
        }
    }

    /** Removes all that was made, as nothing in it can be played. */
    void removeAll(List<String> folders) throws IOException {
        for (String name : own) {
            delete(name);
        }
        for (String folder : folders) {
            deleteEmpty(root.resolve(folder));
        }
    }

    @Override
    public void close() throws IOException {
        Files.deleteIfExists(root.resolve(LOCK));
        lock.close();
        if (made) {
            deleteEmpty(root);
        }
    }

    private static void deleteEmpty(Path folder) throws IOException {
        try {
            Files.deleteIfExists(folder);
        } catch (DirectoryNotEmptyException inUse) {
            // It holds results, or something of somebody else's.
        }
    }
}
