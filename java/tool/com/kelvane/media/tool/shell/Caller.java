package com.kelvane.media.tool.shell;

import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;

/** What the launcher hands on from its caller; the working directory is the installed tree. */
public final class Caller {
    /** Where the caller stands: paths he gives are relative to it. */
    public static final Path DIRECTORY = Path.of(System.getProperty("kelvane.caller.directory", "")).toAbsolutePath();

    /** The caller's standard output, which the launcher moved to descriptor 0; the library writes to descriptor 1. */
    public static final PrintStream OUTPUT =
            new PrintStream(new FileOutputStream(FileDescriptor.in), true, StandardCharsets.UTF_8);

    /** Whether {@link #OUTPUT} is a terminal. */
    public static final boolean TERMINAL = Boolean.getBoolean("kelvane.terminal");

    private Caller() {
    }
}
