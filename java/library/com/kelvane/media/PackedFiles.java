package com.kelvane.media;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.net.URL;
import java.net.URLConnection;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.DigestInputStream;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.Map;

/**
 * Files for the process to load or to run, out of a jar: the native libraries, and the programs of the command-line tool. An
 * index in the jar, lines of {@code sha256sum}, names them; they lie beside it, and all of them go into one folder, where
 * they find one another. Applications have no use for this class.
 */
public final class PackedFiles {
    private final URL index;
    private final Map<String, String> checksums = new LinkedHashMap<>(); // SHA-256 by file name
    private final String contentHash;

    /**
     * Reads the index.
     *
     * @param index where it is: a resource of a jar
     * @throws IOException if it cannot be read
     */
    public PackedFiles(URL index) throws IOException {
        this.index = index;
        MessageDigest digest = sha256();
        try (BufferedReader lines = new BufferedReader(new InputStreamReader(
                new DigestInputStream(open(index), digest), StandardCharsets.UTF_8))) {
            for (String line = lines.readLine(); line != null; line = lines.readLine()) {
                String[] parts = line.split("  ", 2);
                if (parts.length != 2 || !parts[1].matches("[\\w.-]*\\w")) {
                    throw new IOException(index + " is damaged");
                }
                checksums.put(parts[1], parts[0]);
            }
        }
        contentHash = HexFormat.of().formatHex(digest.digest());
    }

    /**
     * The folder of these files, unpacked: in the user's cache, where they stay, or, where that is impossible or must not hold
     * programs, in a folder of {@code java.io.tmpdir} that is deleted when the virtual machine ends.
     *
     * @return its path, absolute
     * @throws IOException if neither can be written, or if the jar is damaged
     */
    public Path unpack() throws IOException {
        try {
            Path folder = unpackInto(PrivateFolder.cache());
            if (checksums.keySet().stream().allMatch(name -> Files.isExecutable(folder.resolve(name)))) {
                return folder;
            }
        } catch (IOException noCache) {
            // Then for this process alone.
        }
        Path folder = PrivateFolder.temporary();
        Runtime.getRuntime().addShutdownHook(new Thread(() -> PrivateFolder.delete(folder)));
        unpackAll(folder);
        return folder;
    }

    /**
     * Makes sure that the folder of these files in the user's cache holds them, each with the content it has in the
     * jar, and nothing else. Any number of processes may do so at once: a file appears there whole or not at all.
     */
    Path unpackInto(Path cache) throws IOException {
        Path folder = PrivateFolder.make(cache.resolve(contentHash));
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder)) {
            for (Path file : files) {
                if (!checksums.containsKey(file.getFileName().toString())) {
                    Files.deleteIfExists(file); // libraries would find it before the machine's own
                }
            }
        }
        Path unpacked = null;
        try {
            for (String name : checksums.keySet()) {
                if (!holds(folder.resolve(name), checksums.get(name))) {
                    unpacked = unpacked == null ? PrivateFolder.temporary(cache) : unpacked;
                    unpack(name, unpacked);
                    Files.move(unpacked.resolve(name), folder.resolve(name), StandardCopyOption.ATOMIC_MOVE);
                }
            }
        } finally {
            if (unpacked != null) {
                PrivateFolder.delete(unpacked);
            }
        }
        return folder;
    }

    /** Unpacks them into an empty folder. */
    void unpackAll(Path folder) throws IOException {
        for (String name : checksums.keySet()) {
            unpack(name, folder);
        }
    }

    private void unpack(String name, Path folder) throws IOException {
        MessageDigest digest = sha256();
        Path file = folder.resolve(name);
        try (InputStream packed = new DigestInputStream(open(new URL(index, name)), digest)) {
            Files.copy(packed, file);
        }
        Files.setPosixFilePermissions(file, PosixFilePermissions.fromString("rwx------"));
        if (!HexFormat.of().formatHex(digest.digest()).equals(checksums.get(name))) {
            throw new IOException(name + " beside " + index + " is damaged");
        }
    }

    private static boolean holds(Path file, String checksum) throws IOException {
        if (!Files.isRegularFile(file, LinkOption.NOFOLLOW_LINKS)) {
            return false;
        }
        MessageDigest digest = sha256();
        try (InputStream content = new DigestInputStream(Files.newInputStream(file), digest)) {
            content.transferTo(OutputStream.nullOutputStream());
        }
        return HexFormat.of().formatHex(digest.digest()).equals(checksum);
    }

    // The virtual machine's cache of open jars would keep this one open after its class loader is gone.
    private static InputStream open(URL url) throws IOException {
        URLConnection connection = url.openConnection();
        connection.setUseCaches(false);
        return connection.getInputStream();
    }

    private static MessageDigest sha256() {
        try {
            return MessageDigest.getInstance("SHA-256");
        } catch (NoSuchAlgorithmException e) {
            throw new IllegalStateException(e); // every Java platform has it
        }
    }
}
