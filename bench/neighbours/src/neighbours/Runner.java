package neighbours;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.FileTime;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import java.util.TreeSet;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * Runs every case of every column, each in a virtual machine, home, temporary and working folder of its own, and writes
 * the table. Run with a column and the key of a case, it is that virtual machine.
 */
public final class Runner {
    private static final Map<Integer, String> POINTS = new TreeMap<>();
    private static final String[] POINT_NAMES = {"Jars alone, empty folder", "Second class loader", "Use after close",
        "Double close", "Four threads on one object", "Callback that closes or re-enters", "Wrong handle or object",
        "Wrong setting", "Forgotten close", "Natives: where, races, tampering", "Unsupported platform",
        "Size of the dependency", "Cost of a call"};

    static {
        for (String name : POINT_NAMES) {
            POINTS.put(POINTS.size() + 1, name);
        }
    }

    private final Path out;
    private final StringBuilder details = new StringBuilder();

    private Runner(Path out) {
        this.out = out;
    }

    public static void main(String[] arguments) throws Exception {
        if (arguments[0].equals("child")) {
            child(arguments[1], arguments[2], Path.of(arguments[3]));
        } else {
            new Runner(Path.of(arguments[0])).runAll(arguments);
        }
    }

    private static Column column(String name) throws ReflectiveOperationException {
        return (Column) Class.forName("neighbours.columns." + name).getConstructor().newInstance();
    }

    // ---- the virtual machine of one case ----

    private static void child(String name, String key, Path result) throws Exception {
        Column column = column(name);
        Case wanted = Stream.concat(common(column).stream(), column.cases().stream())
                .filter(each -> each.key().equals(key)).findFirst().orElseThrow();
        String text;
        try {
            text = "value\t" + wanted.body().call();
        } catch (Throwable thrown) {
            text = "threw\t" + Case.describe(thrown);
        }
        Files.writeString(result, text);
        System.exit(0);
    }

    /** The cases that need no more of a library than its smoke(). */
    private static List<Case> common(Column column) {
        return List.of(new Case(1, "smoke", column::smoke),
                new Case(2, "both at once", () -> twoLoaders(column, false)),
                new Case(2, "first closed and collected", () -> twoLoaders(column, true)),
                new Case(11, "os.arch=aarch64", column::smoke).with("-Dos.arch=aarch64"),
                new Case(11, "os.arch=sparc", column::smoke).with("-Dos.arch=sparc"),
                new Case(10, "killed", () -> {
                    column.smoke();
                    String self = String.valueOf(ProcessHandle.current().pid());
                    new ProcessBuilder("kill", "-KILL", self).start().waitFor();
                    return "still alive";
                }),
                new Case(10, "mapped", () -> column.smoke() + "; mapped: " + mappedLibraries()));
    }

    private static String twoLoaders(Column column, boolean closeFirst) throws Exception {
        List<URL> path = new ArrayList<>();
        for (String entry : System.getProperty("java.class.path").split(":")) {
            path.add(Path.of(entry).toUri().toURL());
        }
        URL[] urls = path.toArray(URL[]::new);
        URLClassLoader first = new URLClassLoader(urls, ClassLoader.getPlatformClassLoader());
        URLClassLoader second = new URLClassLoader(urls, ClassLoader.getPlatformClassLoader());
        String before = "first: " + smokeIn(first, column);
        if (!closeFirst) {
            return before + "; second: " + smokeIn(second, column) + "; first again: " + smokeIn(first, column)
                    + "; mapped: " + mappedLibraries();
        }
        // As a control, a loader that has loaded a class and no natives.
        URLClassLoader plain = new URLClassLoader(urls, ClassLoader.getPlatformClassLoader());
        Class.forName(Case.class.getName(), true, plain);
        List<WeakReference<ClassLoader>> closed = List.of(new WeakReference<>(first), new WeakReference<>(plain));
        first.close();
        first = null;
        plain.close();
        plain = null;
        Case.collect();
        return before + "; closed, collected: " + (closed.get(0).get() == null) + " (one without natives: "
                + (closed.get(1).get() == null) + "); second: " + smokeIn(second, column);
    }

    private static String smokeIn(ClassLoader loader, Column column) {
        return Case.attempt(() -> {
            Thread.currentThread().setContextClassLoader(loader);
            try {
                Class<?> there = loader.loadClass(column.getClass().getName());
                return there.getMethod("smoke").invoke(there.getConstructor().newInstance());
            } finally {
                Thread.currentThread().setContextClassLoader(null);
            }
        });
    }

    private static String mappedLibraries() throws IOException {
        String scratch = Path.of("").toAbsolutePath().getParent().toString();
        return Files.readAllLines(Path.of("/proc/self/maps")).stream().filter(line -> line.contains(scratch))
                .map(line -> line.substring(line.indexOf(scratch) + scratch.length()))
                .filter(line -> line.contains(".so")).distinct().collect(Collectors.joining(", "));
    }

    // ---- the one that starts them ----

    /** Folders of one or several virtual machines; gone afterwards. */
    private static final class Scratch implements AutoCloseable {
        final Path root;

        Scratch() throws IOException {
            root = Files.createTempDirectory("neighbours");
            for (String name : List.of("home", "tmp", "work")) {
                Files.createDirectory(root.resolve(name));
            }
        }

        List<Path> files() throws IOException {
            try (Stream<Path> all = Files.walk(root)) {
                return all.filter(Files::isRegularFile).filter(file -> !file.startsWith(root.resolve("work")))
                        .filter(file -> file.getParent().compareTo(root) != 0)
                        .filter(file -> !file.toString().contains("hsperfdata")).toList();
            }
        }

        @Override
        public void close() throws IOException {
            try (Stream<Path> all = Files.walk(root)) {
                for (Path file : all.sorted(Comparator.reverseOrder()).toList()) {
                    Files.delete(file);
                }
            }
        }
    }

    private record Started(Process process, Path result, Path output, Path crash) {
    }

    private List<Path> jars(Column column) throws IOException {
        try (Stream<Path> all = Files.list(out.resolve("lib"))) {
            return all.filter(jar -> column.jars().stream().anyMatch(jar.getFileName().toString()::startsWith)).sorted()
                    .toList();
        }
    }

    /** Starts a case. The mounts are shell commands, run in a mount namespace of its own before the machine starts. */
    private Started start(Column column, Case one, Scratch scratch, String mounts) throws IOException {
        Path result = Files.createTempFile(scratch.root, "result", "");
        Path output = Files.createTempFile(scratch.root, "output", "");
        Path crash = Path.of(result + ".hs_err");
        String classPath = Stream.concat(Stream.of(out.resolve("classes")), jars(column).stream())
                .map(Path::toString).collect(Collectors.joining(":"));
        List<String> command = new ArrayList<>();
        if (!mounts.isEmpty()) {
            command.addAll(List.of("unshare", "-m", "sh", "-ec", mounts + "; exec \"$@\"", "sh"));
        }
        command.addAll(List.of("java", "-Xmx512m", "-XX:ErrorFile=" + crash,
                "-Duser.home=" + scratch.root.resolve("home"), "-Djava.io.tmpdir=" + scratch.root.resolve("tmp"), "-cp",
                classPath));
        if (one.point() == 9) {
            // The heap is all there from the beginning, so that the memory that grows is what the natives hold.
            command.addAll(List.of("-Xms512m", "-XX:+AlwaysPreTouch"));
        }
        command.addAll(one.options());
        command.addAll(List.of("neighbours.Runner", "child", column.getClass().getSimpleName(), one.key(),
                result.toString()));
        ProcessBuilder builder = new ProcessBuilder(command).directory(scratch.root.resolve("work").toFile())
                .redirectErrorStream(true).redirectOutput(output.toFile());
        builder.environment().put("HOME", scratch.root.resolve("home").toString());
        builder.environment().put("TMPDIR", scratch.root.resolve("tmp").toString());
        builder.environment().putAll(one.environment());
        return new Started(builder.start(), result, output, crash);
    }

    private String finish(Started started) throws IOException, InterruptedException {
        boolean ended = started.process.waitFor(30, TimeUnit.SECONDS);
        if (!ended) {
            // Has the virtual machine print its threads.
            new ProcessBuilder("kill", "-QUIT", String.valueOf(started.process.pid())).start().waitFor();
            Thread.sleep(2000);
            started.process.destroyForcibly().waitFor();
        }
        int code = started.process.exitValue();
        String[] result = Files.readString(started.result).split("\t", 2);
        String said = Files.readString(started.output).strip();
        String text = result.length < 2 ? "" : (result[0].equals("threw") ? "exception: " : "") + result[1];
        if (!ended) {
            Matcher main = Pattern.compile("\"main\".*\\R.*\\R((?:\\s+(?:at|-) .*\\R){1,5})").matcher(said);
            text = "hangs (ended after 30 s) "
                    + (main.find() ? main.group(1).strip().replaceAll("\\s*\\R\\s*", " / ") : "");
        } else if (Files.exists(started.crash)) {
            text = "JVM ended (" + code + "): " + crashReason(Files.readString(started.crash)) + " " + text;
        } else if (code != 0) {
            text = "JVM ended (" + code + "): " + said.lines().limit(3).collect(Collectors.joining(" / ")) + " " + text;
        }
        details.append("  ").append(text.replace("\n", " / ")).append('\n');
        if (!said.isEmpty() && !Files.exists(started.crash)) {
            said.lines().limit(30).forEach(line -> details.append("  > ").append(line).append('\n'));
        }
        return text.strip();
    }

    private static String crashReason(String report) {
        Matcher signal = Pattern.compile("#\\s+(SIG\\w+|Internal Error)").matcher(report);
        Matcher frame = Pattern.compile("# Problematic frame:\\R# (.*)").matcher(report);
        return (signal.find() ? signal.group(1) : "?") + (frame.find() ? " in " + frame.group(1).strip() : "");
    }

    private String runOne(Column column, Case one) throws IOException, InterruptedException {
        try (Scratch scratch = new Scratch()) {
            return finish(start(column, one, scratch, ""));
        }
    }

    /** Point 10, in which the folders are prepared, shared by two processes or spoilt between two. */
    private Map<String, String> unpacking(Column column) throws IOException, InterruptedException {
        Case killed = common(column).get(5);
        Case mapped = common(column).get(6);
        Map<String, String> results = new LinkedHashMap<>();
        try (Scratch scratch = new Scratch()) {
            String used = finish(start(column, mapped, scratch, ""));
            results.put("where", used + "; left behind: " + scratch.files().stream()
                    .map(file -> scratch.root.relativize(file).toString()).limit(6).toList());
        }
        try (Scratch scratch = new Scratch()) {
            finish(start(column, killed, scratch, ""));
            finish(start(column, mapped, scratch, ""));
            results.put("killed, then a good run", "left behind: " + scratch.files().stream()
                    .map(file -> scratch.root.relativize(file).toString()).filter(file -> file.contains(".so")).limit(6)
                    .toList());
        }
        int good = 0;
        int rounds = 5;
        TreeSet<String> bad = new TreeSet<>();
        for (int i = 0; i < rounds; i++) {
            try (Scratch scratch = new Scratch()) {
                List<Started> both = List.of(start(column, mapped, scratch, ""), start(column, mapped, scratch, ""));
                for (Started each : both) {
                    String text = finish(each);
                    good += text.contains("; mapped: ") && !text.startsWith("JVM") ? 1 : 0;
                    if (!text.contains("; mapped: ") || text.startsWith("JVM")) {
                        bad.add(text);
                    }
                }
            }
        }
        results.put("two processes at once", good + " of " + 2 * rounds + " work " + (bad.isEmpty() ? "" : bad));
        results.put("cut in half between runs", spoilt(column, mapped, true));
        results.put("zeroed within, same size and date", spoilt(column, mapped, false));
        results.put("home read-only", mounted(column, mapped, "mount -t tmpfs -o ro none home"));
        results.put("tmp noexec", mounted(column, mapped, "mount -t tmpfs -o noexec none tmp"));
        results.put("tmp and home noexec", mounted(column, mapped,
                "mount -t tmpfs -o noexec none tmp; mount -t tmpfs -o noexec none home"));
        return results;
    }

    private String mounted(Column column, Case one, String mounts) throws IOException, InterruptedException {
        try (Scratch scratch = new Scratch()) {
            return finish(start(column, one, scratch, "cd ..; " + mounts + "; cd work"));
        }
    }

    private String spoilt(Column column, Case one, boolean shorten) throws IOException, InterruptedException {
        try (Scratch scratch = new Scratch()) {
            finish(start(column, one, scratch, ""));
            int spoilt = 0;
            for (Path file : scratch.files()) {
                if (file.toString().contains(".so")) {
                    FileTime date = Files.getLastModifiedTime(file);
                    byte[] bytes = Files.readAllBytes(file);
                    Arrays.fill(bytes, bytes.length / 4, bytes.length / 2, (byte) 0);
                    Files.write(file, shorten ? Arrays.copyOf(bytes, bytes.length / 2) : bytes);
                    Files.setLastModifiedTime(file, date);
                    spoilt++;
                }
            }
            return spoilt == 0 ? "nothing is kept that could be spoilt"
                    : spoilt + " files spoilt: " + finish(start(column, one, scratch, ""));
        }
    }

    private Map<String, String> sizes(Column column) throws IOException {
        long bytes = 0;
        List<String> each = new ArrayList<>();
        for (Path jar : jars(column)) {
            bytes += Files.size(jar);
            each.add(jar.getFileName().toString());
        }
        return Map.of("jars", String.format(Locale.ROOT, "%d, %.1f MB (%s)", each.size(), bytes / 1e6,
                String.join(", ", each)));
    }

    private void runAll(String[] arguments) throws Exception {
        List<String> chosen = new ArrayList<>();
        int only = 0;
        for (int i = 2; i < arguments.length; i++) {
            if (arguments[i].equals("--only")) {
                only = Integer.parseInt(arguments[++i]);
            } else {
                chosen.add(arguments[i]);
            }
        }
        if (chosen.isEmpty()) {
            chosen.addAll(List.of(arguments[1].split(" ")));
        }
        StringBuilder titles = new StringBuilder("| |");
        Map<Integer, StringBuilder> rows = new TreeMap<>();
        for (String name : chosen) {
            Column column = column(name);
            titles.append(' ').append(column.title()).append(" |");
            details.append("\n# ").append(column.title()).append('\n');
            List<Case> cases = new ArrayList<>(common(column).subList(0, 5));
            cases.addAll(column.cases());
            for (int point : POINTS.keySet()) {
                if (only != 0 && only != point) {
                    continue;
                }
                Map<String, String> results = new LinkedHashMap<>();
                details.append("\n## ").append(point).append(". ").append(POINTS.get(point)).append('\n');
                for (Case one : cases) {
                    if (one.point() == point) {
                        details.append("- ").append(one.label()).append('\n');
                        results.put(one.label(), runOne(column, one));
                    }
                }
                if (point == 10) {
                    results.putAll(unpacking(column));
                } else if (point == 12) {
                    results.putAll(sizes(column));
                }
                results.forEach((label, text) -> System.out.printf(Locale.ROOT, "%s %d %s: %s%n", name, point, label, text));
                rows.computeIfAbsent(point, p -> new StringBuilder("| " + p + ". " + POINTS.get(p) + " |")).append(' ')
                        .append(results.entrySet().stream()
                                .map(each -> each.getKey() + ": " + shortened(each.getValue()))
                                .collect(Collectors.joining("<br>")))
                        .append(" |");
            }
        }
        Path report = out.resolve("report.md");
        Files.writeString(report, titles + "\n|" + " --- |".repeat(chosen.size() + 1) + "\n"
                + rows.values().stream().map(row -> row + "\n").collect(Collectors.joining()) + details);
        System.out.println("written: " + report);
    }

    private static String shortened(String text) {
        String oneLine = text.replace("\n", " ").replace("|", "\\|");
        return oneLine.length() <= 160 ? oneLine : oneLine.substring(0, 157) + "...";
    }
}
