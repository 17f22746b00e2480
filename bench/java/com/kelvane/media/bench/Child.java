package com.kelvane.media.bench;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/** A measurement in a virtual machine of its own, which prints lines of "figure NAME VALUE" on standard error. */
final class Child {
    static final String COLUMN = ":";

    private Child() {
    }

    static void report(String name, double value) {
        System.err.println("figure\t" + name + "\t" + value);
    }

    /** A figure for the column of a row. */
    static void report(String row, String column, double value) {
        report(row + COLUMN + column, value);
    }

    /** Starts a virtual machine whose pipes are the caller's. */
    static Process start(List<String> options, Map<String, String> environment, Class<?> main, String... arguments) throws IOException {
        return builder(options, environment, main, arguments).redirectError(ProcessBuilder.Redirect.INHERIT).start();
    }

    private static ProcessBuilder builder(List<String> options, Map<String, String> environment, Class<?> main, String... arguments) {
        List<String> command = new ArrayList<>(List.of(Path.of(System.getProperty("java.home"), "bin", "java").toString(), "-cp",
                System.getProperty("java.class.path")));
        for (String property : List.of("bench.floor", "bench.openh264", "bench.ffmpeg", "bench.module", "bench.mp3",
                "kelvane.openh264")) {
            command.add("-D" + property + "=" + System.getProperty(property));
        }
        command.addAll(options);
        command.add(main.getName());
        command.addAll(List.of(arguments));
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.environment().putAll(environment);
        return builder;
    }

    static Map<String, Double> run(List<String> options, Map<String, String> environment, Class<?> main, String... arguments)
            throws IOException, InterruptedException {
        Process process = builder(options, environment, main, arguments).redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
        String printed = new String(process.getErrorStream().readAllBytes(), StandardCharsets.UTF_8);
        if (process.waitFor() != 0) {
            throw new IOException(main.getSimpleName() + " failed: " + printed);
        }
        Map<String, Double> figures = new LinkedHashMap<>();
        printed.lines().filter(line -> line.startsWith("figure\t")).map(line -> line.split("\t"))
                .forEach(fields -> figures.put(fields[1], Double.parseDouble(fields[2])));
        return figures;
    }
}
