package com.kelvane.media.test;

import com.sun.net.httpserver.HttpServer;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse.BodyHandlers;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Opens a page of results in chromium, from a web server and from its file, and has it play. Arguments: its directory, and
 * for each of the two what is to be found, as a regular expression; then the address of a live page, and what is found there.
 */
public final class PageCheck {
    private static final String PLAYS = """
            const done = arguments[0], video = document.querySelector('video'), begin = Date.now();
            video.muted = true;
            const timer = setInterval(() => {
              if (video.paused) video.play().catch(() => {});
              if (video.currentTime > 0.7 || Date.now() - begin > 15000) {
                clearInterval(timer);
                const points = selector => [...document.querySelectorAll(selector)].map(line => line.points.length).join(' ');
                done([video.currentTime > 0.7 ? 'plays' : 'stands still',
                  video.canPlayType('application/vnd.apple.mpegurl') ? 'ladders' : 'files', video.currentSrc.replace(/.*[/]/, ''),
                  video.videoWidth + ' wide', document.querySelectorAll('img[src]').length + ' images',
                  [...document.images].every(image => image.naturalWidth > 0) ? 'loaded' : 'missing',
                  points('svg polyline'), document.querySelector('h1').textContent].join('|'));
              }
            }, 50);
            """;
    private static final HttpClient CLIENT = HttpClient.newHttpClient();

    private PageCheck() {
    }

    public static void main(String[] arguments) throws Exception {
        Path directory = Path.of(arguments[0]).toRealPath();
        ExecutorService threads = Executors.newCachedThreadPool();
        HttpServer server = serve(directory, threads);
        Process driver = null;
        boolean right = true;
        try {
            driver = new ProcessBuilder("chromedriver", "--port=0").redirectErrorStream(true).start();
            String session = begin(driver);
            try {
                right &= opens(session, "http://localhost:" + server.getAddress().getPort() + "/index.html", arguments[1]);
                right &= opens(session, directory.resolve("index.html").toUri().toString(), arguments[2]);
                right &= opens(session, arguments[3], arguments[4]);
            } finally {
                CLIENT.send(HttpRequest.newBuilder(URI.create(session)).DELETE().build(), BodyHandlers.ofString());
            }
        } finally {
            if (driver != null) {
                driver.destroy();
            }
            server.stop(0);
            threads.shutdownNow();
        }
        System.exit(right ? 0 : 1);
    }

    private static HttpServer serve(Path directory, ExecutorService threads) throws IOException {
        HttpServer server = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0), 0);
        server.setExecutor(threads);
        server.createContext("/", exchange -> {
            Path file = directory.resolve(exchange.getRequestURI().getPath().substring(1));
            byte[] bytes = Files.exists(file) ? Files.readAllBytes(file) : new byte[0];
            String name = file.toString();
            exchange.getResponseHeaders().set("Content-Type", name.endsWith(".html") ? "text/html"
                    : name.endsWith(".m3u8") ? "application/vnd.apple.mpegurl" : name.endsWith(".png") ? "image/png" : "video/mp4");
            exchange.sendResponseHeaders(Files.exists(file) ? 200 : 404, bytes.length == 0 ? -1 : bytes.length);
            exchange.getResponseBody().write(bytes);
            exchange.close();
        });
        server.start();
        return server;
    }

    /** Returns the session's address. */
    private static String begin(Process driver) throws Exception {
        BufferedReader lines = new BufferedReader(new InputStreamReader(driver.getInputStream()));
        Matcher port = null;
        for (String line = lines.readLine(); line != null; line = lines.readLine()) {
            port = Pattern.compile("started successfully on port (\\d+)").matcher(line);
            if (port.find()) {
                break;
            }
        }
        String address = "http://localhost:" + port.group(1) + "/session";
        List<String> options = List.of("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                "--disable-background-networking", "--disable-component-update", "--disable-sync",
                "--autoplay-policy=no-user-gesture-required");
        String begun = post(address, "{\"capabilities\":{\"alwaysMatch\":{\"browserName\":\"chrome\",\"goog:loggingPrefs\":"
                + "{\"browser\":\"ALL\"},\"timeouts\":{\"script\":20000},\"goog:chromeOptions\":{\"args\":[\""
                + String.join("\",\"", options) + "\"]}}}}");
        Matcher session = Pattern.compile("\"sessionId\":\"([^\"]+)\"").matcher(begun);
        if (!session.find()) {
            throw new IOException(begun);
        }
        return address + "/" + session.group(1);
    }

    private static boolean opens(String session, String page, String expected) throws Exception {
        post(session + "/url", "{\"url\":\"" + page + "\"}");
        String script = PLAYS.replace("\\", "\\\\").replace("\"", "\\\"").replace("\n", "\\n");
        String found = post(session + "/execute/async", "{\"script\":\"" + script + "\",\"args\":[]}");
        String log = post(session + "/se/log", "{\"type\":\"browser\"}");
        boolean right = found.matches(expected) && log.equals("{\"value\":[]}");
        System.out.println(page + "\n  " + found + "\n  console: " + log + (right ? "" : "\n  expected: " + expected));
        return right;
    }

    private static String post(String address, String body) throws Exception {
        return CLIENT.send(HttpRequest.newBuilder(URI.create(address)).POST(HttpRequest.BodyPublishers.ofString(body)).build(),
                BodyHandlers.ofString()).body();
    }
}
