package com.kelvane.media.test;

import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpHandler;
import com.sun.net.httpserver.HttpServer;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** A web server of this machine for folders, as plain as one in front of a ladder may be. */
final class FileServer implements AutoCloseable {
    private static final Map<String, String> TYPES = Map.of("html", "text/html", "m3u8", "application/vnd.apple.mpegurl",
            "png", "image/png", "js", "text/javascript");

    private final ExecutorService threads = Executors.newCachedThreadPool();
    private final HttpServer server;

    FileServer() throws IOException {
        server = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0), 0);
        server.setExecutor(threads);
        server.start();
    }

    String address() {
        return "http://localhost:" + server.getAddress().getPort();
    }

    void add(String path, HttpHandler handler) {
        server.createContext(path, handler);
    }

    /** @param path begins and ends with a slash */
    void add(String path, Path folder) {
        add(path, exchange -> send(exchange, folder.resolve(exchange.getRequestURI().getPath().substring(path.length()))));
    }

    /** Sends a file, or what is asked for of it. */
    static void send(HttpExchange exchange, Path file) throws IOException {
        try (exchange) {
            if (!Files.isRegularFile(file)) {
                exchange.sendResponseHeaders(404, -1);
                return;
            }
            byte[] bytes = Files.readAllBytes(file);
            String name = file.toString();
            exchange.getResponseHeaders().set("Content-Type", TYPES.getOrDefault(name.substring(name.lastIndexOf('.') + 1),
                    "video/mp4"));
            exchange.getResponseHeaders().set("Accept-Ranges", "bytes");
            String range = exchange.getRequestHeaders().getFirst("Range");
            Matcher wanted = Pattern.compile("bytes=(\\d+)-(\\d*)").matcher(range == null ? "" : range);
            int status = 200;
            if (wanted.matches() && Long.parseLong(wanted.group(1)) < bytes.length) {
                int from = Integer.parseInt(wanted.group(1));
                int to = wanted.group(2).isEmpty() ? bytes.length : (int) Math.min(bytes.length, Long.parseLong(wanted.group(2)) + 1);
                exchange.getResponseHeaders().set("Content-Range", "bytes " + from + "-" + (to - 1) + "/" + bytes.length);
                bytes = Arrays.copyOfRange(bytes, from, to);
                status = 206;
            }
            exchange.sendResponseHeaders(status, bytes.length == 0 ? -1 : bytes.length);
            exchange.getResponseBody().write(bytes);
        }
    }

    @Override
    public void close() {
        server.stop(0);
        threads.shutdownNow();
    }
}
