package com.kelvane.media.tool.shell;

import java.io.FileDescriptor;
import java.io.FileInputStream;
import java.io.FileNotFoundException;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.stream.StreamSupport;

/** What the launcher hands on from its caller; the working directory is the installed tree. */
public final class Caller {
    // Without the launcher, in somebody else's process, those descriptors may be anything.
    private static final boolean LAUNCHED = System.getProperty("kelvane.caller.directory") != null;

    /** Where the caller stands: paths he gives are relative to it. */
    public static final Path DIRECTORY = Path.of(System.getProperty("kelvane.caller.directory", "")).toAbsolutePath();

    /** The caller's standard output, which the launcher moved to descriptor 0; the library writes to descriptor 1. */
    public static final PrintStream OUTPUT = !LAUNCHED ? System.out
            : new PrintStream(new FileOutputStream(FileDescriptor.in), true, StandardCharsets.UTF_8);

    /** The caller's standard error; what others write there passes the launcher's filter. */
    public static final PrintStream ERRORS = errors();

    /** Whether {@link #OUTPUT} is a terminal. */
    public static final boolean TERMINAL = Boolean.getBoolean("kelvane.terminal");

    /** The caller's standard input, which the launcher moved to descriptor 4. */
    public static InputStream input() throws IOException {
        return LAUNCHED ? new FileInputStream("/proc/self/fd/4") : System.in;
    }

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

    private static PrintStream errors() {
        try {
            return !LAUNCHED ? System.err : new PrintStream(new FileOutputStream("/proc/self/fd/3", true), true, StandardCharsets.UTF_8);
        } catch (FileNotFoundException socketOrNone) {
            return System.err;
        }
    }

    private Caller() {
    }
}
