package com.kelvane.media;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryIteratorException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.List;
import java.util.Map;
import java.util.Set;

/** Folders in which nobody but the user of this process can put a file: what is loaded from them runs as that user. */
final class PrivateFolder {
    private static final String NAME = "kelvane-media";
    private static final FileAttribute<Set<PosixFilePermission>> OWNER_ONLY =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));
    private static final int WRITABLE_BY_OTHERS = 0002;
    private static final int WRITABLE_BY_GROUP = 0020;
    private static final int STICKY = 01000; // only its owner may rename or delete what lies in such a folder
    private static final int ROOT = 0;

    private PrivateFolder() {
    }

    /**
     * The library's cache folder of this user, which is made if it is not there: {@code kelvane-media} in
     * {@code XDG_CACHE_HOME} or {@code ~/.cache}.
     *
     * @throws IOException if it cannot be made, or if another user could change what lies in it
     */
    static Path cache() throws IOException {
        String cacheHome = System.getenv("XDG_CACHE_HOME");
        String home = System.getenv("HOME");
        Path parent = cacheHome != null && cacheHome.startsWith("/") ? Path.of(cacheHome)
                : Path.of(home != null && home.startsWith("/") ? home : System.getProperty("user.home"), ".cache");
        if (!parent.isAbsolute()) {
            throw new IOException("the user has no home folder");
        }
        return make(parent.resolve(NAME));
    }

    /** Makes a folder, and its parents, unless it is there; refuses one that another user could change. */
    static Path make(Path folder) throws IOException {
        if (!Files.isDirectory(folder)) {
            Path parent = folder.getParent();
            while (!Files.exists(parent)) {
                parent = parent.getParent();
            }
            requireNobodyElseRenames(parent); // as root in the home of a user, say
            Files.createDirectories(folder, OWNER_ONLY);
        }
        Path real = folder.toRealPath();
        requireNobodyElseWrites(real);
        requireNobodyElseRenames(real.getParent());
        return real;
    }

    /** Makes a new folder of an unforeseeable name in {@code java.io.tmpdir}. */
    static Path temporary() throws IOException {
        return Files.createTempDirectory(NAME + "-", OWNER_ONLY).toRealPath();
    }

    /** Makes a new folder of an unforeseeable name in another folder. */
    static Path temporary(Path parent) throws IOException {
        return Files.createTempDirectory(parent, "new-", OWNER_ONLY);
    }

    /** Deletes a folder and its files as far as it goes: what cannot be deleted is not worth a failure. */
    static void delete(Path folder) {
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder)) {
            for (Path file : files) {
                Files.delete(file);
            }
            Files.delete(folder);
        } catch (IOException | DirectoryIteratorException e) {
            // It stays where it is.
        }
    }

    private static void requireNobodyElseWrites(Path folder) throws IOException {
        Map<String, Object> attributes = Files.readAttributes(folder, "unix:uid,mode");
        if ((Integer) attributes.get("uid") != user()) {
            throw new IOException(folder + " belongs to another user");
        }
        if (((Integer) attributes.get("mode") & (WRITABLE_BY_GROUP | WRITABLE_BY_OTHERS)) != 0) {
            throw new IOException(folder + " is writable by other users");
        }
    }

    // Who may rename what lies in one of the folders on the way could put a folder of his own there. A group may: with
    // the defaults of some systems each user has a group of his own, which can write to whatever he makes.
    private static void requireNobodyElseRenames(Path folder) throws IOException {
        int user = user();
        for (Path way = folder.toRealPath(); way != null; way = way.getParent()) {
            Map<String, Object> attributes = Files.readAttributes(way, "unix:uid,mode");
            int owner = (Integer) attributes.get("uid");
            if (owner != user && owner != ROOT) {
                throw new IOException(way + " belongs to another user");
            }
            if (((Integer) attributes.get("mode") & (WRITABLE_BY_OTHERS | STICKY)) == WRITABLE_BY_OTHERS) {
                throw new IOException(way + " is writable by other users");
            }
        }
    }

    // Not the user's name, which a container may lack.
    private static int user() throws IOException {
        List<String> status = Files.readAllLines(Path.of("/proc/self/status"), StandardCharsets.ISO_8859_1);
        return status.stream().filter(line -> line.startsWith("Uid:")).findFirst()
                .map(line -> Integer.parseUnsignedInt(line.split("\\s+")[2])) // real, effective, ...
                .orElseThrow(() -> new IOException("/proc tells no user"));
    }
}
