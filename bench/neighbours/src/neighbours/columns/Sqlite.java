package neighbours.columns;

import java.nio.file.Files;
import java.sql.Connection;
import java.sql.DriverManager;
import java.sql.PreparedStatement;
import java.sql.ResultSet;
import java.sql.SQLException;
import java.sql.Statement;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import neighbours.Case;
import neighbours.Column;
import org.sqlite.Function;
import org.sqlite.ProgressHandler;
import org.sqlite.SQLiteConnection;
import org.sqlite.core.DB;

/** sqlite-jdbc: a connection, its statements and result sets. */
public final class Sqlite implements Column {
    @Override
    public String title() {
        return "sqlite-jdbc";
    }

    @Override
    public List<String> jars() {
        return List.of("sqlite-jdbc-");
    }

    @Override
    public String smoke() throws SQLException {
        try (Connection connection = open("")) {
            return "sqlite " + one(connection, "select sqlite_version()");
        }
    }

    // The driver is named, as DriverManager finds it by itself on the class path of the application only.
    private static Connection open(String settings) throws SQLException {
        return new org.sqlite.JDBC().connect("jdbc:sqlite::memory:" + settings, new java.util.Properties());
    }

    private static String one(Connection connection, String query) throws SQLException {
        try (Statement statement = connection.createStatement(); ResultSet row = statement.executeQuery(query)) {
            return row.next() ? row.getString(1) : "no row";
        }
    }

    private static String countTo1000(String result) {
        return "with recursive n(i) as (select 1 union all select i+1 from n where i<1000) select " + result + " from n";
    }

    private static DB handle(Connection connection) throws SQLException {
        return connection.unwrap(SQLiteConnection.class).getDatabase();
    }

    private static String closed(String what) throws SQLException {
        Connection connection = open("");
        PreparedStatement statement = connection.prepareStatement("select 1 union select 2");
        ResultSet rows = statement.executeQuery();
        rows.next();
        switch (what) {
            case "result set" -> statement.close();
            default -> connection.close();
        }
        return switch (what) {
            case "connection" -> String.valueOf(connection.createStatement());
            case "statement" -> String.valueOf(statement.executeQuery());
            case "result set" -> "next " + rows.next() + ", value " + Case.attempt(() -> rows.getInt(1));
            default -> "changes() " + handle(connection).changes();
        };
    }

    private static String inFunction(boolean progress, Case.Action misuse) throws SQLException {
        Connection connection = SHARED.get();
        AtomicReference<String> inside = new AtomicReference<>("not reached");
        Runnable step = () -> inside.set(Case.attemptOf(misuse));
        if (progress) {
            ProgressHandler.setHandler(connection, 10, new ProgressHandler() {
                @Override
                protected int progress() {
                    step.run();
                    return 0;
                }
            });
        } else {
            Function.create(connection, "misuse", new Function() {
                @Override
                protected void xFunc() throws SQLException {
                    step.run();
                    result(1);
                }
            });
        }
        String query = countTo1000(progress ? "sum(i)" : "sum(misuse())");
        String outside = Case.attempt(() -> one(connection, query));
        return "in the callback: " + inside.get() + "; the query: " + outside + "; afterwards: "
                + Case.attempt(() -> one(connection, "select 7"));
    }

    private static final AtomicReference<Connection> SHARED = new AtomicReference<>();

    private static Connection shared() throws SQLException {
        SHARED.set(open(""));
        return SHARED.get();
    }

    private static String setting(String settings, String query) throws SQLException {
        try (Connection connection = open(settings)) {
            return "accepted; now " + one(connection, query);
        }
    }

    private static boolean roundTrip(PreparedStatement statement, AtomicInteger next) throws SQLException {
        int value = next.incrementAndGet();
        statement.setInt(1, value);
        try (ResultSet row = statement.executeQuery()) {
            return row.next() && row.getInt(1) == value;
        }
    }

    @Override
    public List<Case> cases() {
        AtomicInteger next = new AtomicInteger();
        return List.of(
                new Case(3, "connection", () -> closed("connection")),
                new Case(3, "statement of a closed connection", () -> closed("statement")),
                new Case(3, "result set of a closed statement", () -> closed("result set")),
                new Case(3, "DB (internal class, public) of a closed connection", () -> closed("handle")),
                new Case(4, "connection, statement, result set", () -> {
                    Connection connection = open("");
                    Statement statement = connection.createStatement();
                    ResultSet rows = statement.executeQuery("select 1");
                    for (int i = 0; i < 2; i++) {
                        rows.close();
                        statement.close();
                        connection.close();
                    }
                    return "nothing happens";
                }),
                new Case(5, "one prepared statement", () -> {
                    PreparedStatement statement = shared().prepareStatement("select ?");
                    return Case.hammer(() -> roundTrip(statement, next));
                }),
                new Case(5, "one connection, statements of their own", () -> {
                    Connection connection = shared();
                    return Case.hammer(() -> {
                        try (PreparedStatement statement = connection.prepareStatement("select ?")) {
                            return roundTrip(statement, next);
                        }
                    });
                }),
                new Case(5, "connection closed while they query", () -> {
                    Connection connection = shared();
                    return Case.hammer(() -> one(connection, countTo1000("sum(i)")).equals("500500"),
                            connection::close);
                }),
                new Case(6, "function closes its connection", () -> {
                    Connection connection = shared();
                    return inFunction(false, connection::close);
                }),
                new Case(6, "function queries its connection", () -> {
                    Connection connection = shared();
                    return inFunction(false, () -> one(connection, "select 5"));
                }),
                new Case(6, "progress handler closes its connection", () -> {
                    Connection connection = shared();
                    return inFunction(true, connection::close);
                }),
                new Case(6, "function throws", () -> {
                    Connection connection = open("");
                    Function.create(connection, "misuse", new Function() {
                        @Override
                        protected void xFunc() {
                            throw new IllegalArgumentException("from the function");
                        }
                    });
                    return one(connection, "select misuse()");
                }),
                new Case(7, "DB.column_int(0)", () -> handle(shared()).column_int(0, 0)),
                new Case(7, "DB.column_int(42)", () -> handle(shared()).column_int(42, 0)),
                new Case(8, "journal_mode=banana", () -> setting("?journal_mode=banana", "pragma journal_mode")),
                new Case(8, "no_such_setting=1", () -> setting("?no_such_setting=1", "select 'works'")),
                new Case(8, "cache_size=abc", () -> setting("?cache_size=abc", "pragma cache_size")),
                new Case(8, "date_class=banana", () -> setting("?date_class=banana", "select 'works'")),
                new Case(9, "connections to files, with statements", () -> {
                    String folder = Files.createTempDirectory("forgotten").toString();
                    return Case.forget(200, () -> {
                        Connection connection =
                                DriverManager.getConnection("jdbc:sqlite:" + folder + "/" + next.incrementAndGet());
                        connection.createStatement().execute("create table t(x)");
                    });
                }),
                new Case(13, "ResultSet.getInt on an open row", () -> {
                    ResultSet row = shared().createStatement().executeQuery("select 1");
                    row.next();
                    return Case.nanoseconds(calls -> {
                        try {
                            for (int i = 0; i < calls; i++) {
                                row.getInt(1);
                            }
                        } catch (SQLException e) {
                            throw new IllegalStateException(e);
                        }
                    });
                }),
                new Case(13, "DB.total_changes(), synchronized, no other check", () -> {
                    DB database = handle(shared());
                    return Case.nanoseconds(calls -> {
                        try {
                            for (int i = 0; i < calls; i++) {
                                database.total_changes();
                            }
                        } catch (SQLException e) {
                            throw new IllegalStateException(e);
                        }
                    });
                }));
    }
}
