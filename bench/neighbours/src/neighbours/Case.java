package neighbours;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.Callable;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.IntConsumer;
import java.util.stream.Stream;

/** One thing done to a library, in a virtual machine started for it: what it returns or throws is what is reported. */
public record Case(int point, String label, Callable<?> body, List<String> options, Map<String, String> environment) {
    /** An action that may throw anything. */
    public interface Action {
        void run() throws Exception;
    }

    public Case(int point, String label, Callable<?> body) {
        this(point, label, body, List.of(), Map.of());
    }

    /** With these options of the virtual machine. */
    public Case with(String... given) {
        return new Case(point, label, body, List.of(given), environment);
    }

    /** With this variable in the environment. */
    public Case set(String name, String value) {
        return new Case(point, label, body, options, Map.of(name, value));
    }

    String key() {
        return point + " " + label;
    }

    /** The class and message of an exception and of its causes, on one line. */
    public static String describe(Throwable thrown) {
        StringBuilder text = new StringBuilder();
        for (Throwable cause = thrown; cause != null; cause = cause.getCause()) {
            text.append(text.length() == 0 ? "" : " <- ").append(cause.getClass().getName().replaceAll(".*\\.", ""));
            if (cause.getMessage() != null) {
                text.append(": ").append(cause.getMessage().strip().replaceAll("\\s*\\R\\s*", " / "));
            }
        }
        return text.toString();
    }

    /** As {@link #attempt(Callable)}, for what returns nothing. */
    public static String attemptOf(Action step) {
        return attempt(() -> {
            step.run();
            return "returns";
        });
    }

    /** What one step of several gave, so that the next still runs. */
    public static String attempt(Callable<?> step) {
        try {
            return String.valueOf(step.call());
        } catch (Throwable thrown) {
            return describe(thrown);
        }
    }

    /** Runs an action in four threads for three seconds; {@code true} from it means that its result was right. */
    public static String hammer(Callable<Boolean> action) {
        return hammer(action, () -> { });
    }

    /** As {@link #hammer(Callable)}, with something done once, in the calling thread, after one second. */
    public static String hammer(Callable<Boolean> action, Action once) {
        AtomicLong right = new AtomicLong();
        AtomicLong wrong = new AtomicLong();
        Map<String, Long> thrown = new TreeMap<>();
        long end = System.nanoTime() + 3_000_000_000L;
        Thread[] threads = new Thread[4];
        for (int i = 0; i < threads.length; i++) {
            threads[i] = new Thread(() -> {
                while (System.nanoTime() < end) {
                    try {
                        (action.call() ? right : wrong).incrementAndGet();
                    } catch (Throwable t) {
                        synchronized (thrown) {
                            String text = describe(t).replaceAll("0x[0-9a-f]+|@[0-9a-f]+|\\d{4,}", "N");
                            thrown.merge(thrown.size() < 6 ? text : "others", 1L, Long::sum);
                        }
                    }
                }
            });
            threads[i].setDaemon(true);
            threads[i].start();
        }
        String interruption = attemptOf(() -> {
            Thread.sleep(1000);
            once.run();
        });
        boolean stuck = false;
        for (Thread thread : threads) {
            try {
                thread.join(8000);
            } catch (InterruptedException e) {
                throw new IllegalStateException(e);
            }
            stuck |= thread.isAlive();
        }
        String other = interruption.equals("returns") ? "" : "the other call: " + interruption + "; ";
        return other + right + " right, " + wrong + " wrong, thrown " + thrown + (stuck ? ", threads stuck" : "");
    }

    /** The median of five runs of ten million calls; the loop is given the number of calls to make. */
    public static String nanoseconds(IntConsumer loop) {
        int calls = 10_000_000;
        double[] each = new double[5];
        loop.accept(calls / 10);
        for (int i = 0; i < each.length; i++) {
            long start = System.nanoTime();
            loop.accept(calls);
            each[i] = (double) (System.nanoTime() - start) / calls;
        }
        Arrays.sort(each);
        return String.format(Locale.ROOT, "%.1f ns", each[2]);
    }

    /**
     * Makes many objects that nobody keeps, collects garbage, and says what the process still holds; then once more, as
     * what is lost for good is lost twice.
     */
    public static String forget(int count, Action make) throws Exception {
        make.run();
        collect();
        long files = openFiles();
        long memory = residentKilobytes();
        StringBuilder text = new StringBuilder(count + " forgotten");
        for (int round = 0; round < 2; round++) {
            for (int i = 0; i < count; i++) {
                make.run();
            }
            text.append(String.format(Locale.ROOT, "%s: open files +%d, resident +%d MB", round == 0 ? "" : "; as many again",
                    openFiles() - files, (residentKilobytes() - memory) >> 10));
            collect();
            text.append(String.format(Locale.ROOT, ", once collected +%d, +%d MB", openFiles() - files,
                    (residentKilobytes() - memory) >> 10));
        }
        return text.toString();
    }

    public static void collect() throws InterruptedException {
        for (int i = 0; i < 8; i++) {
            System.gc();
            Thread.sleep(150);
        }
    }

    private static long openFiles() throws IOException {
        try (Stream<Path> files = Files.list(Path.of("/proc/self/fd"))) {
            return files.count();
        }
    }

    private static long residentKilobytes() throws IOException {
        return Files.readAllLines(Path.of("/proc/self/status")).stream().filter(line -> line.startsWith("VmRSS"))
                .mapToLong(line -> Long.parseLong(line.replaceAll("\\D", ""))).findFirst().orElseThrow();
    }
}
