package com.kelvane.media.tool.shell;

import java.io.BufferedReader;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.function.Consumer;

/** Runs FFmpeg's programs of the installed tree, which do the container work; the library handles none. */
public enum MediaProgram {
    FFMPEG("ffmpeg", "-nostdin", "-nostats", "-y"),
    FFPROBE("ffprobe");

    private static final Set<Process> RUNNING = ConcurrentHashMap.newKeySet();

    private final List<String> start = new ArrayList<>();

    MediaProgram(String name, String... options) {
        start.add(Path.of("bin", name).toAbsolutePath().toString());
        start.addAll(List.of(options));
        start.add("-hide_banner");
    }

    /**
     * Runs the program to its end and hands on what it prints, line by line, from two threads.
     *
     * @param folder its working directory
     * @return its exit code
     */
    public int run(Path folder, List<String> arguments, Consumer<String> output, Consumer<String> errors) throws IOException {
        List<String> command = new ArrayList<>(start);
        command.addAll(arguments);
        Process process;
        try {
            process = new ProcessBuilder(command).directory(folder.toFile()).redirectInput(new File("/dev/null")).start();
        } catch (IOException unusable) {
            throw new Failure("%s cannot be run (%s); build and install the tree anew", command.get(0),
                    unusable.getCause() == null ? unusable.getMessage() : unusable.getCause().getMessage());
        }
        RUNNING.add(process);
        try {
            Thread errorReader = new Thread(() -> readLines(process.getErrorStream(), errors));
            errorReader.start();
            readLines(process.getInputStream(), output);
            errorReader.join();
            return process.waitFor();
        } catch (InterruptedException interrupted) {
            throw new IOException("interrupted", interrupted);
        } finally {
            process.destroyForcibly();
            RUNNING.remove(process);
        }
    }

    /** Ends the programs that still run, for the virtual machine's own end. */
    public static void endAll() {
        RUNNING.forEach(Process::destroyForcibly);
        for (Process process : RUNNING) {
            process.onExit().join();
        }
    }

    private static void readLines(InputStream stream, Consumer<String> lines) {
        try (BufferedReader reader = new BufferedReader(new InputStreamReader(stream, StandardCharsets.UTF_8))) {
            reader.lines().forEach(lines);
        } catch (IOException | UncheckedIOException ended) {
            // The pipe breaks when the program is ended from outside; its exit code tells.
        }
    }

    /** The first error line of a run, without the name and address of the object or the file that it begins with. */
    public static final class FirstError implements Consumer<String> {
        private final String subject;
        private volatile String text = "";

        public FirstError(Object subject) {
            this.subject = subject + ": ";
        }

        @Override
        public void accept(String line) {
            if (text.isEmpty()) {
                String message = line.replaceFirst("^\\[[^]]* @ 0x[0-9a-f]+] ", "");
                text = message.startsWith(subject) ? message.substring(subject.length()) : message;
            }
        }

        public boolean isEmpty() {
            return text.isEmpty();
        }

        @Override
        public String toString() {
            return text.isEmpty() ? "no reason given" : text;
        }
    }
}
