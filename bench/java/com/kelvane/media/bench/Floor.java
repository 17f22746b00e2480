package com.kelvane.media.bench;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.Writer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;

/** The program of bare library calls, in a process that lives for many passes. */
final class Floor implements AutoCloseable {
    private final Process process;
    private final Writer commands;
    private final BufferedReader answers;

    Floor(Map<String, String> environment) throws IOException {
        ProcessBuilder builder = new ProcessBuilder(System.getProperty("bench.floor")).redirectError(ProcessBuilder.Redirect.INHERIT);
        builder.environment().putAll(environment);
        process = builder.start();
        commands = process.outputWriter();
        answers = process.inputReader();
    }

    /** Begins a pass; {@link #answer} waits for its end. */
    void begin(String command) throws IOException {
        commands.write(command + "\n");
        commands.flush();
    }

    /** Waits for the end of a pass, giving way to the others on the way. */
    Spent answer(Turns turns) throws IOException {
        String line = answers.readLine();
        while (line != null && (line.equals("more") || line.startsWith("lap "))) {
            if (line.equals("more")) {
                turns.pause();
                begin("");
            } else {
                String[] lap = line.split(" ");
                turns.lap(Long.parseLong(lap[1]), Long.parseLong(lap[2]));
            }
            line = answers.readLine();
        }
        if (line == null) {
            throw new IOException("the floor ended in the middle of a pass");
        }
        String[] numbers = line.split(" ");
        return new Spent(Long.parseLong(numbers[0]), Long.parseLong(numbers[1]), Long.parseLong(numbers[2]),
                Long.parseLong(numbers[3]), Long.parseLong(numbers[4]));
    }

    Spent run(String command, Turns turns) throws IOException {
        begin(command);
        return answer(turns);
    }

    /** A pass of a kind over a file of packets. */
    Contest.Pass pass(String kind, Path packets, String arguments) {
        return (checked, turns) -> run(kind + " " + (checked ? "check" : turns.slice) + " " + turns.laps + " " + packets + " "
                + arguments, turns);
    }

    /** {@return the most memory that the process had resident, in bytes} */
    long mostResident() throws IOException {
        return statusBytes(process.pid(), "VmHWM");
    }

    static long statusBytes(long pid, String field) throws IOException {
        for (String line : Files.readAllLines(Path.of("/proc/" + pid + "/status"))) {
            if (line.startsWith(field + ":")) {
                return Long.parseLong(line.replaceAll("\\D", "")) * 1024;
            }
        }
        throw new IOException("no " + field + " of process " + pid);
    }

    long pid() {
        return process.pid();
    }

    Process process() {
        return process;
    }

    /** {@return this, working on the processor that is for comparisons} */
    Floor bound() throws IOException, InterruptedException {
        Turns.bind(Long.toString(pid()));
        return this;
    }

    @Override
    public void close() throws IOException {
        commands.close();
        process.destroy();
    }
}
