package com.kelvane.media.tool.shell;

import com.kelvane.media.PackedFiles;
import java.io.BufferedReader;
import java.io.Closeable;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.io.UncheckedIOException;
import java.lang.ProcessBuilder.Redirect;
import java.net.URL;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.function.Consumer;

/**
 * FFmpeg's programs, which do the container work; the library handles none. They lie in the folder that the system property
 * {@code kelvane.programs} names, as the launcher does with that of the installed tree; or in the tool's artifact of classifier
 * {@code linux-x86_64} or {@code linux-aarch64} on the class path, from which they are unpacked at the first use of one of them.
 */
public enum MediaProgram {
    FFMPEG("ffmpeg", "-nostats", "-y"),
    FFPROBE("ffprobe");

    private static final String INDEX = "/META-INF/programs/" + platform() + "/SHA256SUMS";
    private static final Set<Process> RUNNING = ConcurrentHashMap.newKeySet();
    private static volatile boolean noMore;
    private static Path programs; // their folder

    private final List<String> guards = new ArrayList<>();
    private final String file;
    private final List<String> options;

    MediaProgram(String file, String... options) {
        // Ctrl-C is for this process, which may have more to write. When it is killed, the program ends with it: to be exact,
        // with the thread that started it.
        for (List<String> guard : List.of(List.of("/usr/bin/setsid"), List.of("/usr/bin/setpriv", "--pdeathsig", "KILL"))) {
            if (Files.isExecutable(Path.of(guard.get(0)))) {
                guards.addAll(guard);
            }
        }
        this.file = file;
        this.options = List.of(options);
    }

    private static String platform() {
        String architecture = System.getProperty("os.arch");
        return "linux-" + ("amd64".equals(architecture) ? "x86_64" : architecture);
    }

    private static synchronized Path programs() {
        if (programs == null) {
            String named = System.getProperty("kelvane.programs");
            URL index = MediaProgram.class.getResource(INDEX);
            if (named == null && index == null) {
                throw new Failure("FFmpeg's programs are missing; add the artifact com.kelvane:kelvane-tool of classifier"
                        + " " + platform() + " to the class path, or set -Dkelvane.programs=FOLDER");
            }
            try {
                programs = named != null ? Path.of(named).toAbsolutePath() : new PackedFiles(index).unpack();
            } catch (IOException unwritable) {
                throw new Failure("FFmpeg's programs cannot be unpacked: %s", Failure.reason(unwritable));
            }
        }
        return programs;
    }

    /**
     * Starts the program; what it is not given on its standard input ends at once.
     *
     * @param folder its working directory
     * @param fed whether something is to be written to its standard input
     * @param errors gets what it prints on standard error, line by line, and null at its end, from a thread of its own
     */
    public Running start(Path folder, List<String> arguments, boolean fed, Consumer<String> errors) {
        Path program = programs().resolve(file);
        List<String> command = new ArrayList<>(guards);
        command.add(program.toString());
        command.addAll(options);
        command.add("-hide_banner");
        command.addAll(arguments);
        try {
            return new Running(new ProcessBuilder(command).directory(folder.toFile())
                    .redirectInput(fed ? Redirect.PIPE : Redirect.from(new File("/dev/null"))).start(), errors);
        } catch (IOException unusable) {
            throw new Failure("%s cannot be run (%s); build and install the tree anew", program,
                    unusable.getCause() == null ? unusable.getMessage() : unusable.getCause().getMessage());
        }
    }

    /**
     * Runs the program to its end and hands on what it prints, line by line, from two threads.
     *
     * @param folder its working directory
     * @return its exit code
     */
    public int run(Path folder, List<String> arguments, Consumer<String> output, Consumer<String> errors) throws IOException {
        try (Running running = start(folder, arguments, false, errors)) {
            readLines(running.output(), output);
            return running.finish();
        }
    }

    /** A program at work, which {@link #close} ends if need be. */
    public static final class Running implements Closeable {
        private final Process process;
        private final Thread errorReader;

        private Running(Process process, Consumer<String> errors) {
            this.process = process;
            RUNNING.add(process);
            if (noMore) {
                close();
            }
            errorReader = new Thread(() -> {
                readLines(process.getErrorStream(), errors);
                errors.accept(null);
            });
            errorReader.start();
        }

        /** What the program prints. */
        public InputStream output() {
            return process.getInputStream();
        }

        /** What the program reads. */
        public OutputStream input() {
            return process.getOutputStream();
        }

        /** Waits for the program's end and for its last error line; returns its exit code. */
        public int finish() throws IOException {
            try {
                errorReader.join();
                return process.waitFor();
            } catch (InterruptedException interrupted) {
                throw new IOException("interrupted", interrupted);
            }
        }

        @Override
        public void close() {
            process.destroyForcibly();
            process.onExit().join(); // until then it may make files
            RUNNING.remove(process);
        }
    }

    /** Ends the programs that still run and those that are started from now on, for the virtual machine's own end. */
    public static void endAll() {
        noMore = true;
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
            if (line != null && text.isEmpty()) {
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
