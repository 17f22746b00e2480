package com.kelvane.media.bench;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.ProcessingModule;
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
    private static final int LAUNCHES = 5;

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
        parts.put("machine", benchmarks::fullMachine);
        parts.put("memory", benchmarks::memory);
        parts.put("writes", benchmarks::writeTimes);
        parts.put("picture", benchmarks::perPicture);
        List<String> chosen = arguments[2].equals("all") ? List.copyOf(parts.keySet()) : List.of(arguments[2].split(","));
        List<String> about = new ArrayList<>(List.of(arguments).subList(3, arguments.length));
        about.add(benchmarks.rounds + " rounds in turns after warming up, more where they are short; medians, and in brackets within how many percent of the "
                + "ratio the middle half of the rounds lay; load at the beginning "
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
        Table table = table("A ladder of renditions", "Milliseconds of CPU for a picture of the source. The floor is a C++ program "
                + "with the same library calls on the same access units and nothing else; all three give the same bytes. FFmpeg's own "
                + "program decodes once, scales alike and encodes with libopenh264 at the same parameters, on one thread; what it "
                + "takes for a stream of one picture is subtracted as its start.",
                "floor, ms|natives, ms|API, ms|FFmpeg, ms", atMost("natives to floor", 1.01), atMost("API to floor", 1.01),
                atMost("API to FFmpeg", 0.99));
        try (Floor floor = new Floor(Map.of()).bound(); Floor again = new Floor(Map.of()).bound();
                Floor starter = new Floor(Map.of()).bound()) {
            for (Map.Entry<String, Packets> source : sources.entrySet()) {
                int height = Integer.parseInt(source.getKey().replaceAll("p.*", ""));
                int frameRate = Integer.parseInt(source.getKey().replaceAll(".*p", ""));
                for (int count : new int[] {1, 3, 5}) {
                    Ladder ladder = Ladder.of(height, frameRate, count);
                    FFmpegProgram program = new FFmpegProgram(folder, starter, source.getKey(), ladder);
                    program.check(source.getValue().list().size());
                    List<byte[]> units = source.getValue().list();
                    Path packets = source.getValue().file();
                    Contest contest = new Contest(source.getKey(), units.size())
                            .way("floor", floor.pass("ladder", packets, ladder.forFloor()))
                            .way("floor again", again.pass("ladder", packets, ladder.forFloor()));
                    contest.way("natives", ladder.natives(units)).way("API", ladder.api(units, null)).other("FFmpeg", program.pass())
                            .run(rounds);
                    String row = source.getKey() + ", " + count + (count == 1 ? " rung" : " rungs");
                    for (String way : List.of("floor", "natives", "API", "FFmpeg")) {
                        table.put(row, way + ", ms", contest.result(way).median() / 1e6 / units.size(), 3);
                    }
                    table.put(row, "floor again to floor", contest.ratio("floor again", "floor"));
                    table.put(row, "natives to floor", contest.ratio("natives", "floor"));
                    table.put(row, "API to floor", contest.ratio("API", "floor"));
                    table.put(row, "API to FFmpeg", contest.ratio("API", "FFmpeg"));
                    table.tell(row);
                }
            }
        }
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
        contest.run(rounds, false, Spent::wall);
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
        Table decoding = table("Pictures to Java, and the pipeline", "Milliseconds of CPU for a picture of 1280x720. Decoding is compared "
                + "with bare decoding plus one copy, the pipeline with bare decoding, one copy and FFmpeg's own OpenH264 encoder; the module "
                + "is the example mosaic without a region.", "floor, ms|API, ms", atMost("decoding, to floor", 1.12),
                atMost("pipeline, to floor", 1.02));
        Packets source = sources.get("720p30");
        try (Floor floor = new Floor(Map.of()).bound()) {
            row(decoding, "decoder", "decoding, to floor", new Contest("decoder", source.list().size()).way("floor", floor.pass("decode", source.file(), ""))
                    .way("API", Engines.decode(source.list())));
            String pipeline = "30 " + Engines.PIPELINE_BITRATE;
            ProcessingModule idle = ProcessingModule.load(Path.of(System.getProperty("bench.module")));
            for (ProcessingModule module : new ProcessingModule[] {null, idle}) {
                row(decoding, module == null ? "pipeline" : "pipeline, idle module", "pipeline, to floor",
                        new Contest("pipeline", source.list().size()).way("floor", floor.pass("pipeline", source.file(), pipeline))
                                .way("API", Engines.pipeline(source.list(), 30, module)));
            }
        }
    }

    private void row(Table table, String name, String ratio, Contest contest) throws Exception {
        contest.run(rounds);
        table.put(name, "floor, ms", contest.result("floor").median() / 1e6 / contest.units(), 3)
                .put(name, "API, ms", contest.result("API").median() / 1e6 / contest.units(), 3);
        table.put(name, ratio, contest.ratio("API", "floor"));
        table.tell(name);
    }

    private void sound() throws Exception {
        Table table = table("Sound", "CPU for " + Sound.SECONDS + " s of stereo: how many times faster than real time, and beside the bare calls. "
                + "Medians of " + LAUNCHES + " launches of all programs, as where the memory of so short a call lies counts for more than "
                + "the call.",
                "API, times real time", atMost("natives to floor", 1.03), atMost("API to floor", 1.03));
        Map<String, List<Double>> figures = new LinkedHashMap<>();
        for (int launch = 0; launch < LAUNCHES; launch++) {
            Child.run(List.of("-Xms512m", "-Xmn64m"), Map.of(), SoundContests.class, folder.toString(), Integer.toString(rounds))
                    .forEach((name, value) -> figures.computeIfAbsent(name, ignored -> new ArrayList<>()).add(value));
        }
        figures.forEach((name, values) -> {
            String kind = name.substring(0, name.indexOf(':'));
            String column = name.substring(kind.length() + 1);
            Contest.Result result = Contest.Result.of(values.stream().mapToDouble(Double::doubleValue).toArray());
            if (column.contains(" to ")) {
                table.put(kind, column, result);
            } else {
                table.put(kind, column, result.median(), 0);
            }
        });
    }

    private void guard() {
        Guard.measure(table("The guard", "What the API's check of each call takes, by the clock.", "guard, ns"), rounds);
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
