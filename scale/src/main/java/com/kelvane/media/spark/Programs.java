package com.kelvane.media.spark;

import java.io.BufferedReader;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.net.URL;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.DigestInputStream;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.HexFormat;
import org.apache.spark.SparkEnv;
import org.apache.spark.util.Utils;

/** FFmpeg's programs out of the job's jar, once for each virtual machine: an executor needs nothing installed. */
final class Programs {
    private static final String INDEX = "/META-INF/programs/linux-x86_64/SHA256SUMS";
    private static final String PLACE = "kelvane.programs";
    private static Path folder;

    private Programs() {
    }

    /** Spark's folder for temporary files on this machine, which Spark removes in the end. */
    static Path scratch() {
        return Path.of(Utils.getLocalDir(SparkEnv.get().conf())).toAbsolutePath();
    }

    /** Makes sure that the tool finds the programs. */
    static synchronized void provide() throws IOException {
        if (folder != null || System.getProperty(PLACE) != null) {
            return;
        }
        Path unpacked = Files.createTempDirectory(scratch(), "programs-",
                PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------")));
        URL index = Programs.class.getResource(INDEX);
        if (index == null) {
            throw new IOException("FFmpeg's programs are missing in the job's jar; build it anew");
        }
        try (BufferedReader lines = new BufferedReader(new InputStreamReader(index.openStream(), StandardCharsets.UTF_8))) {
            for (String line = lines.readLine(); line != null; line = lines.readLine()) {
                String[] parts = line.split("  ", 2);
                unpack(new URL(index, parts[1]), unpacked.resolve(parts[1]), parts[0]);
            }
        }
        System.setProperty(PLACE, unpacked.toString());
        folder = unpacked;
    }

    private static void unpack(URL packed, Path file, String checksum) throws IOException {
        MessageDigest digest;
        try {
            digest = MessageDigest.getInstance("SHA-256");
        } catch (NoSuchAlgorithmException everyPlatformHasIt) {
            throw new IllegalStateException(everyPlatformHasIt);
        }
        try (InputStream stream = new DigestInputStream(packed.openStream(), digest)) {
            Files.copy(stream, file);
        }
        File program = file.toFile();
        if (!HexFormat.of().formatHex(digest.digest()).equals(checksum) || !program.setExecutable(true, true)) {
            throw new IOException(file + " could not be unpacked");
        }
    }
}
