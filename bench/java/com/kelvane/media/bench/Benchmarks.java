package com.kelvane.media.bench;

import com.kelvane.media.AccessUnit;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;

/**
 * All benchmarks. Arguments: FOLDER ROUNDS PARTS ABOUT..., where the folder has the sources as 720p30.h264, 1080p30.h264 and
 * 720p60.h264, and receives the report; PARTS are names separated by commas, or all.
 */
public final class Benchmarks {
    private final Path folder;
    private final int rounds;
    private final List<Table> tables = new ArrayList<>();
    private final Map<String, Packets> sources = new LinkedHashMap<>();

    private Benchmarks(Path folder, int rounds) {
        this.folder = folder;
        this.rounds = rounds;
    }

    private interface Part {
        void run() throws Exception;
    }

    public static void main(String[] arguments) throws Exception {
        Benchmarks benchmarks = new Benchmarks(Path.of(arguments[0]), Integer.parseInt(arguments[1]));
        for (String name : List.of("720p30", "1080p30", "720p60")) {
            Path stream = benchmarks.folder.resolve(name + ".h264");
            benchmarks.sources.put(name, Packets.write(benchmarks.folder.resolve(name + ".packets"),
                    AccessUnit.split(Files.readAllBytes(stream))));
        }
        Map<String, Part> parts = new LinkedHashMap<>();
        parts.put("ladder", benchmarks::ladders);
        parts.put("parallel", benchmarks::parallel);
        parts.put("engines", benchmarks::engines);
        parts.put("sound", benchmarks::sound);
        parts.put("guard", benchmarks::guard);
        parts.put("input", benchmarks::input);
        parts.put("machine", benchmarks::fullMachine);
        parts.put("memory", benchmarks::memory);
        parts.put("writes", benchmarks::writeTimes);
        parts.put("picture", benchmarks::perPicture);
        List<String> chosen = arguments[2].equals("all") ? List.copyOf(parts.keySet()) : List.of(arguments[2].split(","));
        List<String> about = new ArrayList<>(List.of(arguments).subList(3, arguments.length));
        about.add(benchmarks.rounds + " launches of all programs, each measuring several laps after warming up; medians, and in brackets "
                + "within how many percent of the ratio the middle half of the launches lay; load at the beginning "
                + Files.readString(Path.of("/proc/loadavg")).split(" ")[0]);
        for (String part : chosen) {
            System.err.println("measuring: " + part);
            parts.get(part).run();
        }
        Report report = new Report(about, benchmarks.tables);
        report.write(benchmarks.folder);
        System.err.println(report.text());
    }

    private Table table(String title, String note, String drawn, Table.Goal... goals) {
        Table table = new Table(title, note, drawn, goals);
        tables.add(table);
        return table;
    }

    private static Table.Goal atMost(String column, double limit) {
        return new Table.Goal(column, limit, true);
    }

    private void ladders() throws Exception {
        launch(table("A ladder of renditions", "Milliseconds of CPU for a picture of the source. The floor is a C++ program "
                + "with the same library calls on the same access units and nothing else; all three give the same bytes. FFmpeg's own "
                + "program decodes once, scales alike and encodes with libopenh264 at the same parameters, on one thread; what it "
                + "takes to start is subtracted, with its first pictures.",
                "floor, ms|natives, ms|API, ms|FFmpeg, ms", atMost("natives to floor", 1.01), atMost("API to floor", 1.01),
                atMost("API to FFmpeg", 0.99)), 3, LadderContests.class, sources.keySet().toArray(String[]::new));
    }

    /** Lets virtual machines of their own fill a table: medians of as many as there are rounds. */
    private void launch(Table table, int decimals, Class<?> contests, String... names) throws Exception {
        Map<String, List<Double>> figures = new LinkedHashMap<>();
        for (int launch = 0; launch < rounds; launch++) {
            List<String> arguments = new ArrayList<>(List.of(folder.toString(), Integer.toString(launch)));
            arguments.addAll(List.of(names));
            Child.run(List.of("-Xms512m", "-Xmn64m"), Map.of(), contests, arguments.toArray(String[]::new))
                    .forEach((name, value) -> figures.computeIfAbsent(name, ignored -> new ArrayList<>()).add(value));
            System.err.println("launch " + (launch + 1) + " of " + rounds);
        }
        figures.forEach((name, values) -> {
            String row = name.substring(0, name.indexOf(Child.COLUMN));
            String column = name.substring(row.length() + Child.COLUMN.length());
            Contest.Result result = Contest.Result.of(values.stream().mapToDouble(Double::doubleValue).toArray());
            if (column.contains("to ")) {
                table.put(row, column, result);
            } else {
                table.put(row, column, result.median(), decimals);
            }
        });
    }

    private void parallel() throws Exception {
        Table table = table("One heavy stream", "1080p into five renditions: milliseconds by the clock for a write, with the renditions "
                + "one after the other and on so many threads. The same bytes.", "a write, ms");
        Packets source = sources.get("1080p30");
        Ladder ladder = Ladder.of(1080, 30, 5);
        int cores = Runtime.getRuntime().availableProcessors();
        Contest contest = new Contest("parallel", source.list().size()).way("sequential", ladder.api(source.list(), null));
        List<ExecutorService> pools = new ArrayList<>();
        for (int threads : new int[] {1, 2, 4}) {
            if (threads <= cores) { // the calling thread is one of them
                ExecutorService pool = Executors.newFixedThreadPool(Math.max(1, threads - 1));
                pools.add(pool);
                contest.way(threads + (threads == 1 ? " thread" : " threads"), ladder.api(source.list(), threads == 1 ? Runnable::run : pool));
            }
        }
        contest.run(rounds, false, Turns.Lap::wall);
        for (String way : List.of("sequential", "1 thread", "2 threads", "4 threads")) {
            if (way.equals("4 threads") && cores < 4 || way.equals("2 threads") && cores < 2) {
                continue;
            }
            table.put(way, "a write, ms", contest.result(way).median() / 1e6 / source.list().size(), 2)
                    .put(way, "to sequential", contest.ratio(way, "sequential").median(), 3);
        }
        pools.forEach(ExecutorService::shutdown);
    }

    private void engines() throws Exception {
        launch(table("Pictures to Java, and the pipeline", "Milliseconds of CPU for a picture of 1280x720. Decoding is compared "
                + "with bare decoding plus one copy, the pipeline with bare decoding, one copy and FFmpeg's own OpenH264 encoder; the module "
                + "is the example mosaic without a region.", "floor, ms|API, ms", atMost("decoding, to floor", 1.12),
                atMost("pipeline, to floor", 1.02)), 3, EngineContests.class, "720p30");
    }

    private void sound() throws Exception {
        launch(table("Sound", "CPU for " + Sound.SECONDS + " s of stereo: how many times faster than real time, and beside the bare calls.",
                "API, times real time", atMost("natives to floor", 1.03), atMost("API to floor", 1.03)), 0, SoundContests.class);
    }

    private void guard() {
        Guard.measure(table("The guard", "What the API's check of each call takes, by the clock.", "guard, ns"), rounds);
    }

    private void input() {
        Parts.measure(table("Input", "What it takes a decoder to be given bytes that it has nothing to decode in, by the clock.",
                "byte[], ns"), rounds);
    }

    private void fullMachine() throws Exception {
        Table table = table("A full machine", "720p into three renditions, as many at once in one virtual machine as there are processes of "
                + "the floor in the next moment, both stopped and continued in turns: pictures a second of all together. MB each: the "
                + "most memory resident beyond what the virtual machine had before, for each transcoder; and a floor process with its "
                + "libraries, which processes share, and without.", "floor, pictures/s|API, pictures/s",
                new Table.Goal("API to floor", 0.98, false));
        for (int count : new int[] {1, 2, 4, 8, 16, 64}) {
            FullMachine.measure(table, count + (count == 1 ? " transcoder" : " transcoders"), count, folder, Ladder.of(720, 30, 3),
                    sources.get("720p30"), rounds, Map.of());
        }
        FullMachine.measure(table, "64, MALLOC_ARENA_MAX=2", 64, folder, Ladder.of(720, 30, 3), sources.get("720p30"), rounds,
                Map.of("MALLOC_ARENA_MAX", "2"));
    }

    private void memory() throws Exception {
        MemoryParts.measure(table("What one transcoder has of memory", "720p into three renditions, in a process of the floor: the most that "
                + "was allocated at one time, the codecs' own included, by differences between ladders; and what was resident.",
                "allocated at most, MB"), folder, sources.get("720p30"));
    }

    private void writeTimes() throws Exception {
        Table table = table("How long a write takes", "720p into three renditions, a transcoder for each core, milliseconds by the clock; "
                + "half load rests after each write as long as that took.", "50.0 %, ms|99.0 %, ms|99.9 %, ms");
        for (String collector : List.of("G1", "Z")) {
            for (String load : List.of("half", "full")) {
                Map<String, Double> figures = Child.run(List.of("-XX:+Use" + collector + "GC", "-Xmx256m"), Map.of(), WriteTimes.class,
                        sources.get("720p30").file().toString(), load, Integer.toString(6 * rounds));
                figures.forEach((column, value) -> table.put(collector + (collector.equals("Z") ? "GC" : "") + ", " + load + " load", column,
                        value, column.endsWith("ms") && !column.contains("pause") ? 2 : 0));
            }
        }
    }

    private void perPicture() throws Exception {
        Table table = table("What else a picture takes", "720p into three renditions (the decoder and the pipeline for themselves), in "
                + "steady state. Allocations are those of the C library, the codecs' own included.", "allocations");
        for (String kind : List.of("floor", "natives", "api", "decode", "pipeline")) {
            Path counted = folder.resolve("allocations-" + kind);
            Files.deleteIfExists(counted);
            Child.run(List.of("-Xmn8m"), Map.of("LD_PRELOAD", System.getProperty("bench.allocations"), "KELVANE_ALLOCATIONS",
                    counted.toString()), PerPicture.class, kind, sources.get("720p30").file().toString())
                    .forEach((column, value) -> table.put(kind, column, value, 1));
        }
    }
}
