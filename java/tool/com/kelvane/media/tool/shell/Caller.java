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

    /** The caller's standard output and error, in UTF-8 whatever the machine's locale. */
    public static final PrintStream OUTPUT = printer(FileDescriptor.out);
    public static final PrintStream ERRORS = printer(FileDescriptor.err);

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

    private static PrintStream printer(FileDescriptor descriptor) {
        return new PrintStream(new FileOutputStream(descriptor), true, StandardCharsets.UTF_8);
    }

    private Caller() {
    }
}
