package com.kelvane.media;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.lang.module.ModuleFinder;
import java.lang.module.ModuleReference;
import java.net.URI;
import java.net.URL;
import java.net.URLConnection;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.security.DigestInputStream;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Optional;
import java.util.stream.Stream;

/**
 * The jar with the native libraries, the artifact of classifier {@code linux-x86_64}. Its index, lines of
 * {@code sha256sum}, names the libraries; all of them go into one folder, where they find one another.
 */
final class NativesJar {
    // No package name, so that a module does not hide it.
    private static final String INDEX = "META-INF/natives/linux-x86_64/SHA256SUMS";
    private static final String MODULE = "com.kelvane.media.natives.linux.x86_64";

    private final URL index;
    private final Map<String, String> checksums = new LinkedHashMap<>(); // SHA-256 by file name
    private final String contentHash;

    /**
     * Finds the jar: on the class path or module path of this class.
     *
     * @throws IOException if it is not there, or cannot be read
     */
    NativesJar() throws IOException {
        index = locate();
        if (index == null) {
            throw new NotThere("not on the class path or module path");
        }
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
     * Makes sure that the folder of these libraries in the user's cache holds them, each with the content it has in the
     * jar, and nothing else. Any number of processes may do so at once: a file appears there whole or not at all.
     */
    Path unpackInto(Path cache) throws IOException {
        Path folder = PrivateFolder.make(cache.resolve(contentHash));
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder)) {
            for (Path file : files) {
                if (!checksums.containsKey(file.getFileName().toString())) {
                    Files.deleteIfExists(file); // the libraries would find it before the machine's own
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

    /** Unpacks the libraries into an empty folder. */
    void unpackAll(Path folder) throws IOException {
        for (String name : checksums.keySet()) {
            unpack(name, folder);
        }
    }

    private void unpack(String name, Path folder) throws IOException {
        MessageDigest digest = sha256();
        try (InputStream packed = new DigestInputStream(open(new URL(index, name)), digest)) {
            Files.copy(packed, folder.resolve(name));
        }
        if (!HexFormat.of().formatHex(digest.digest()).equals(checksums.get(name))) {
            throw new IOException(name + " in the natives jar is damaged");
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

    // As a module this class sees the jar on its class loader if that is the loader of all modules; in a layer with a
    // loader for each module; and, where no module requires the jar, on the module path alone.
    private static URL locate() throws IOException {
        URL found = resource(NativesJar.class.getClassLoader());
        ModuleLayer layer = NativesJar.class.getModule().getLayer();
        if (found == null && layer != null) {
            found = layer.findModule(MODULE).map(module -> resource(module.getClassLoader())).orElse(null);
        }
        String modulePath = System.getProperty("jdk.module.path");
        if (found == null && layer != null && modulePath != null) {
            Path[] places = Stream.of(modulePath.split(":")).map(Path::of).toArray(Path[]::new);
            Optional<URI> jar = ModuleFinder.of(places).find(MODULE).flatMap(ModuleReference::location);
            found = jar.isPresent() ? new URL("jar:" + jar.get() + "!/" + INDEX) : null;
        }
        return found;
    }

    private static URL resource(ClassLoader loader) {
        return loader == null ? ClassLoader.getSystemResource(INDEX) : loader.getResource(INDEX);
    }
}
