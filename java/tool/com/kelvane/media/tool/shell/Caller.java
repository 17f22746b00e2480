package com.kelvane.media.tool.shell;

import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.stream.StreamSupport;

/** What the launcher hands on from its caller; the working directory is the installed tree. */
public final class Caller {
    /** Where the caller stands: paths he gives are relative to it. */
    public static final Path DIRECTORY = Path.of(System.getProperty("kelvane.caller.directory", "")).toAbsolutePath();

    /** The caller's standard output, which the launcher moved to descriptor 0; the library writes to descriptor 1. */
    public static final PrintStream OUTPUT =
            new PrintStream(new FileOutputStream(FileDescriptor.in), true, StandardCharsets.UTF_8);

    /** Whether {@link #OUTPUT} is a terminal. */
    public static final boolean TERMINAL = Boolean.getBoolean("kelvane.terminal");

    /**
     * A path as the caller's shell would take it, absolute. What is there already is found through its symbolic links, as
     * {@code link/..} is not where the link lies.
     */
    public static Path path(Path given) {
        Path absolute = DIRECTORY.resolve(given);
        if (!StreamSupport.stream(absolute.spliterator(), false).anyMatch(name -> name.toString().equals(".."))) {
            return absolute.normalize();
        }
        for (Path existing = absolute; existing != null; existing = existing.getParent()) {
            try {
                return existing.toRealPath().resolve(existing.relativize(absolute)).normalize();
            } catch (IOException notThere) {
                // Its parent may be.
            }
        }
        return absolute;
    }

    private Caller() {
    }
}
