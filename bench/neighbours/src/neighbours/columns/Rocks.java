package neighbours.columns;

import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.Arrays;
import java.util.List;
import java.util.Properties;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicReference;
import neighbours.Case;
import neighbours.Column;
import org.rocksdb.AbstractComparator;
import org.rocksdb.ColumnFamilyDescriptor;
import org.rocksdb.ColumnFamilyHandle;
import org.rocksdb.ComparatorOptions;
import org.rocksdb.DBOptions;
import org.rocksdb.MutableColumnFamilyOptions;
import org.rocksdb.Options;
import org.rocksdb.ReadOptions;
import org.rocksdb.RocksDB;
import org.rocksdb.RocksIterator;
import org.rocksdb.WriteBatch;

/** rocksdbjni: a database, its iterators and its options. */
public final class Rocks implements Column {
    private static final AtomicReference<RocksDB> SHARED = new AtomicReference<>();

    @Override
    public String title() {
        return "rocksdbjni";
    }

    @Override
    public List<String> jars() {
        return List.of("rocksdbjni-");
    }

    @Override
    public String smoke() throws Exception {
        try (RocksDB database = open(new Options())) {
            database.put(bytes("key"), bytes("value"));
            return "reads back " + new String(database.get(bytes("key")), StandardCharsets.UTF_8);
        }
    }

    private static RocksDB open(Options options) throws Exception {
        RocksDB.loadLibrary();
        return RocksDB.open(options.setCreateIfMissing(true), Files.createTempDirectory("rocks").toString());
    }

    /** A database with a thousand entries, each its own key as value. */
    private static RocksDB filled() throws Exception {
        RocksDB database = open(new Options());
        for (int i = 0; i < 1000; i++) {
            database.put(bytes("key" + i), bytes("key" + i));
        }
        SHARED.set(database);
        return database;
    }

    private static byte[] bytes(String text) {
        return text.getBytes(StandardCharsets.UTF_8);
    }

    private static boolean seek(RocksIterator rows) {
        rows.seekToFirst();
        for (int i = 0; i < 20 && rows.isValid(); i++, rows.next()) {
            if (!Arrays.equals(rows.key(), rows.value())) {
                return false;
            }
        }
        return true;
    }

    private static final class Misusing extends AbstractComparator {
        private final Case.Action misuse;
        private final AtomicBoolean armed;
        private final AtomicReference<String> inside;

        Misusing(Case.Action misuse, AtomicBoolean armed, AtomicReference<String> inside) {
            super(new ComparatorOptions());
            this.misuse = misuse;
            this.armed = armed;
            this.inside = inside;
        }

        @Override
        public String name() {
            return "misusing";
        }

        @Override
        public int compare(ByteBuffer a, ByteBuffer b) {
            if (armed.compareAndSet(true, false)) {
                inside.set("entered, not left");
                try {
                    misuse.run();
                    inside.set("returned");
                } catch (RuntimeException e) {
                    inside.set("threw");
                    throw e;
                } catch (Throwable t) {
                    inside.set(Case.describe(t));
                }
            }
            return a.compareTo(b);
        }
    }

    private static String inComparator(Case.Action misuse) throws Exception {
        AtomicBoolean armed = new AtomicBoolean();
        AtomicReference<String> inside = new AtomicReference<>("not reached");
        RocksDB database = open(new Options().setComparator(new Misusing(misuse, armed, inside)));
        SHARED.set(database);
        database.put(bytes("a"), bytes("1"));
        database.put(bytes("b"), bytes("2"));
        armed.set(true);
        String outside = Case.attempt(() -> new String(database.get(bytes("b")), StandardCharsets.UTF_8));
        return "in the comparator: " + inside.get() + "; the read: " + outside;
    }

    private static String closedDatabase() throws Exception {
        RocksDB database = filled();
        database.close();
        return String.valueOf(database.get(bytes("key1")));
    }

    private static String closedOptions() {
        RocksDB.loadLibrary();
        Options options = new Options();
        options.close();
        return "returns " + options.maxOpenFiles();
    }

    private static String closedIterator(boolean database) throws Exception {
        RocksDB rocks = filled();
        RocksIterator rows = rocks.newIterator();
        (database ? rocks : rows).close();
        return "right: " + seek(rows);
    }

    private static String optionCall() {
        RocksDB.loadLibrary();
        Options options = new Options();
        return Case.nanoseconds(calls -> {
            for (int i = 0; i < calls; i++) {
                options.maxOpenFiles();
            }
        });
    }

    @Override
    public List<Case> cases() {
        return List.of(
                new Case(3, "database", Rocks::closedDatabase),
                new Case(3, "database, with -ea", Rocks::closedDatabase).with("-ea"),
                new Case(3, "iterator", () -> closedIterator(false)),
                new Case(3, "iterator of a closed database", () -> closedIterator(true)),
                new Case(3, "iterator of a closed database, with -ea", () -> closedIterator(true)).with("-ea"),
                new Case(3, "options", Rocks::closedOptions),
                new Case(3, "options, with -ea", Rocks::closedOptions).with("-ea"),
                new Case(4, "database, iterator, options", () -> {
                    RocksDB database = filled();
                    RocksIterator rows = database.newIterator();
                    Options options = new Options();
                    for (int i = 0; i < 2; i++) {
                        rows.close();
                        database.close();
                        options.close();
                    }
                    return "nothing happens";
                }),
                new Case(5, "one iterator", () -> {
                    RocksIterator rows = filled().newIterator();
                    return Case.hammer(() -> seek(rows));
                }),
                new Case(5, "one write batch", () -> {
                    RocksDB.loadLibrary();
                    WriteBatch batch = new WriteBatch();
                    return Case.hammer(() -> {
                        batch.put(bytes("key"), bytes("value"));
                        if (batch.count() > 10_000) {
                            batch.clear();
                        }
                        return true;
                    });
                }),
                new Case(5, "database closed while they read", () -> {
                    RocksDB database = filled();
                    return Case.hammer(() -> Arrays.equals(database.get(bytes("key7")), bytes("key7")),
                            database::close);
                }),
                new Case(6, "comparator does no harm", () -> inComparator(() -> { })),
                new Case(6, "comparator closes the database", () -> inComparator(() -> SHARED.get().close())),
                new Case(6, "comparator reads the database", () -> inComparator(() -> SHARED.get().get(bytes("a")))),
                new Case(6, "comparator throws", () -> inComparator(() -> {
                    throw new IllegalArgumentException("from the comparator");
                })),
                new Case(7, "column family of another database", () -> {
                    RocksDB first = filled();
                    ColumnFamilyHandle there =
                            open(new Options()).createColumnFamily(new ColumnFamilyDescriptor(bytes("other")));
                    first.put(there, bytes("x"), bytes("y"));
                    return "accepted; reads back " + new String(first.get(there, bytes("x")), StandardCharsets.UTF_8);
                }),
                new Case(7, "column family of a closed database", () -> {
                    RocksDB first = filled();
                    RocksDB second = open(new Options());
                    ColumnFamilyHandle there = second.createColumnFamily(new ColumnFamilyDescriptor(bytes("other")));
                    second.close();
                    first.put(there, bytes("x"), bytes("y"));
                    return "accepted";
                }),
                new Case(8, "properties: no_such_setting=1", () -> {
                    RocksDB.loadLibrary();
                    Properties properties = new Properties();
                    properties.setProperty("no_such_setting", "1");
                    return "returns " + DBOptions.getDBOptionsFromProps(properties);
                }),
                new Case(8, "properties: max_open_files=banana", () -> {
                    RocksDB.loadLibrary();
                    Properties properties = new Properties();
                    properties.setProperty("max_open_files", "banana");
                    return "returns " + DBOptions.getDBOptionsFromProps(properties);
                }),
                new Case(8, "mutable options: no_such_setting", () ->
                    "accepted " + MutableColumnFamilyOptions.parse("no_such_setting=1")),
                new Case(8, "mutable options: write_buffer_size=banana", () ->
                    "accepted " + MutableColumnFamilyOptions.parse("write_buffer_size=banana")),
                new Case(8, "setMaxWriteBufferNumber(-1) and open", () -> {
                    RocksDB.loadLibrary();
                    return "accepted " + open(new Options().setMaxWriteBufferNumber(-1)).isOwningHandle();
                }),
                new Case(8, "setNumLevels(-1) and open", () -> {
                    RocksDB.loadLibrary();
                    return "accepted " + open(new Options().setNumLevels(-1)).isOwningHandle();
                }),
                new Case(9, "databases", () -> Case.forget(100, () -> open(new Options()).put(bytes("a"), bytes("b")))),
                new Case(9, "ReadOptions", () -> {
                    RocksDB.loadLibrary();
                    return Case.forget(500_000, ReadOptions::new);
                }),
                new Case(11, "musl (ROCKSDB_MUSL_LIBC=true)", this::smoke).set("ROCKSDB_MUSL_LIBC", "true"),
                new Case(13, "Options.maxOpenFiles()", Rocks::optionCall),
                new Case(13, "Options.maxOpenFiles(), with -ea", Rocks::optionCall).with("-ea"));
    }
}
