package com.kelvane.media.tool.live;

import com.kelvane.media.tool.output.Page;
import com.kelvane.media.tool.shell.Failure;
import com.kelvane.media.tool.shell.Text;
import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.UnknownHostException;
import java.nio.channels.Channels;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.HashSet;
import java.util.List;
import java.util.Locale;
import java.util.Optional;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Supplier;

/**
 * Serves a live ladder, its page and its figures. The JDK's server needs a thread for each request that is under way, also of
 * a client that reads slowly or not at all, so each has its time, after which it is given up.
 */
final class LiveServer implements AutoCloseable {
    static final String FIGURES = "live.json";

    private static final int BACKLOG = 1024;          // connections that wait to be accepted
    private static final int LONGEST_REQUEST = 20;    // seconds that a request may take to come
    private static final int LONGEST_RESPONSE = 30;   // seconds that it may take to be answered
    private static final int MOST_IDLE = 2000;        // connections that are kept for another request
    private static final int CHUNK = 1 << 14;         // bytes
    // A segment's name comes again with another run of the tool, and caches would mix them up.
    private static final String SEGMENT_CACHING = "public, max-age=10";

    private static final String OTHER_NAME = "This page is served under the machine's address or the name that --http gives it.\n";

    private final HttpServer server;
    private final ClientThreads threads;
    private final LiveFolder folder;
    private final LiveFigures figures;
    private final Supplier<byte[]> json;
    private final Set<String> names = new HashSet<>(); // by which browsers may know this machine
    private final AtomicInteger reading = new AtomicInteger();
    private volatile long lastRead = System.nanoTime() - TimeUnit.DAYS.toNanos(1);

    /** @param json the figures */
    LiveServer(InetSocketAddress address, LiveFolder folder, LiveFigures figures, Supplier<byte[]> json) {
        this.folder = folder;
        this.figures = figures;
        this.json = json;
        System.setProperty("sun.net.httpserver.maxReqTime", Integer.toString(LONGEST_REQUEST));
        System.setProperty("sun.net.httpserver.maxRspTime", Integer.toString(LONGEST_RESPONSE));
        System.setProperty("sun.net.httpserver.maxIdleConnections", Integer.toString(MOST_IDLE));
        System.setProperty("sun.net.httpserver.nodelay", "true");
        try {
            server = HttpServer.create(address, BACKLOG);
        } catch (IOException refused) {
            throw new Failure("cannot serve at %s:%d (%s); name another port with --http", address.getHostString(),
                    address.getPort(), Failure.reason(refused));
        }
        names.addAll(List.of("localhost", address.getHostString().toLowerCase(Locale.ROOT)));
        try {
            names.add(InetAddress.getLocalHost().getHostName().toLowerCase(Locale.ROOT));
        } catch (UnknownHostException nameless) {
            // Then it has no further name.
        }
        server.createContext("/", this::answer);
        threads = new ClientThreads(executor -> {
            server.setExecutor(executor);
            server.start();
        });
    }

    InetSocketAddress address() {
        return server.getAddress();
    }

    private void answer(HttpExchange exchange) throws IOException {
        figures.requests.incrementAndGet();
        figures.connections.incrementAndGet();
        try (exchange) {
            String method = exchange.getRequestMethod();
            if (!method.equals("GET") && !method.equals("HEAD")) {
                exchange.getResponseHeaders().set("Allow", "GET, HEAD");
                exchange.sendResponseHeaders(405, -1);
                return;
            }
            String path = exchange.getRequestURI().getPath();
            String name = path == null || path.isEmpty() ? "" : path.equals("/") ? Page.FILE : path.substring(1);
            exchange.getResponseHeaders().set("X-Content-Type-Options", "nosniff");
            boolean forPlayers = !name.equals(FIGURES) && !name.equals(Page.FILE);
            if (!forPlayers && !isOurs(exchange.getRequestHeaders().getFirst("Host"))) {
                byte[] reason = OTHER_NAME.getBytes(StandardCharsets.UTF_8);
                exchange.sendResponseHeaders(421, method.equals("GET") ? reason.length : -1);
                if (method.equals("GET")) {
                    exchange.getResponseBody().write(reason);
                }
                return;
            }
            if (name.equals(FIGURES)) {
                byte[] bytes = json.get();
                begin(exchange, name, bytes.length);
                if (method.equals("GET")) {
                    exchange.getResponseBody().write(bytes);
                }
                return;
            }
            Optional<Path> file = folder.find(name);
            if (file.isEmpty()) {
                exchange.sendResponseHeaders(404, -1);
                return;
            }
            if (forPlayers) {
                exchange.getResponseHeaders().set("Access-Control-Allow-Origin", "*"); // players on other pages
                reading.incrementAndGet();
            }
            try {
                send(exchange, name, file.get(), method.equals("GET"));
            } finally {
                if (forPlayers) {
                    lastRead = System.nanoTime();
                    reading.decrementAndGet();
                }
            }
        } finally {
            figures.connections.decrementAndGet();
        }
    }

    /**
     * Whether the figures are for a page that calls this machine so: anybody may have a name of his own lead here, and browsers
     * then take his page and ours for the same. An address cannot be had that way.
     */
    private boolean isOurs(String host) {
        String name = host == null ? "" : host.replaceFirst(":\\d*$", "").toLowerCase(Locale.ROOT);
        return name.matches("[0-9.]+|\\[[0-9a-f:.]+]") || names.contains(name);
    }

    /** Seconds for which no player has asked for anything. */
    double quietSeconds() {
        return reading.get() > 0 ? 0 : (System.nanoTime() - lastRead) / 1e9;
    }

    private void begin(HttpExchange exchange, String name, long length) throws IOException {
        exchange.getResponseHeaders().set("Content-Type", type(name));
        exchange.getResponseHeaders().set("Cache-Control", name.endsWith(".m4s") ? SEGMENT_CACHING : "no-cache");
        boolean head = exchange.getRequestMethod().equals("HEAD");
        if (head) {
            exchange.getResponseHeaders().set("Content-Length", Long.toString(length));
        }
        exchange.sendResponseHeaders(200, head || length == 0 ? -1 : length);
    }

    private void send(HttpExchange exchange, String name, Path file, boolean body) throws IOException {
        long modified = Files.getLastModifiedTime(file).to(TimeUnit.NANOSECONDS); // before it is opened: it may be replaced
        try (FileChannel channel = FileChannel.open(file, StandardOpenOption.READ, LinkOption.NOFOLLOW_LINKS);
                InputStream stream = Channels.newInputStream(channel)) {
            long length = channel.size();
            String tag = Text.format("\"%x-%x\"", modified, length);
            exchange.getResponseHeaders().set("ETag", tag);
            if (tag.equals(exchange.getRequestHeaders().getFirst("If-None-Match"))) {
                exchange.sendResponseHeaders(304, -1);
                return;
            }
            begin(exchange, name, length);
            OutputStream to = exchange.getResponseBody();
            byte[] chunk = new byte[CHUNK];
            for (int part = body ? stream.read(chunk) : -1; part > 0; part = stream.read(chunk)) {
                to.write(chunk, 0, part);
                figures.bytesServed.addAndGet(part);
                threads.progress();
            }
        }
    }

    private static String type(String name) {
        return name.endsWith(".m3u8") ? "application/vnd.apple.mpegurl" : name.endsWith(".html") ? "text/html; charset=utf-8"
                : name.endsWith(".json") ? "application/json" : "video/mp4";
    }

    /** Answers no more; the process, whose end closes the connections, does not wait for the server's own threads. */
    @Override
    public void close() {
        threads.close();
    }
}
