package com.kelvane.media.test;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse.BodyHandlers;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** A chromium without a window, driven by chromedriver. */
final class Browser implements AutoCloseable {
    private static final HttpClient CLIENT = HttpClient.newHttpClient();

    private final Process driver;
    private String session;

    Browser(String... further) throws IOException, InterruptedException {
        driver = new ProcessBuilder("chromedriver", "--port=0").redirectErrorStream(true).start();
        try {
            session = begin(List.of(further));
        } catch (IOException | InterruptedException failed) {
            driver.destroy();
            throw failed;
        }
    }

    /** Returns the session's address. */
    private String begin(List<String> further) throws IOException, InterruptedException {
        BufferedReader lines = new BufferedReader(new InputStreamReader(driver.getInputStream()));
        Matcher port = null;
        for (String line = lines.readLine(); line != null; line = lines.readLine()) {
            port = Pattern.compile("started successfully on port (\\d+)").matcher(line);
            if (port.find()) {
                break;
            }
        }
        String address = "http://localhost:" + port.group(1) + "/session";
        List<String> options = new ArrayList<>(List.of("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                "--no-first-run", "--disable-background-networking", "--disable-component-update", "--disable-sync",
                "--autoplay-policy=no-user-gesture-required"));
        options.addAll(further);
        String begun = post(address, "{\"capabilities\":{\"alwaysMatch\":{\"browserName\":\"chrome\",\"goog:loggingPrefs\":"
                + "{\"browser\":\"ALL\"},\"timeouts\":{\"script\":20000},\"goog:chromeOptions\":{\"args\":[\""
                + String.join("\",\"", options) + "\"]}}}}");
        Matcher id = Pattern.compile("\"sessionId\":\"([^\"]+)\"").matcher(begun);
        if (!id.find()) {
            throw new IOException(begun);
        }
        return address + "/" + id.group(1);
    }

    void open(String page) throws IOException, InterruptedException {
        post(session + "/url", "{\"url\":\"" + page + "\"}");
    }

    /** Returns what a script gives to its last argument, a function, as JSON. */
    String execute(String script) throws IOException, InterruptedException {
        String text = script.replace("\\", "\\\\").replace("\"", "\\\"").replace("\n", "\\n");
        return post(session + "/execute/async", "{\"script\":\"" + text + "\",\"args\":[]}");
    }

    /** Returns the console's lines since the last call, as JSON. */
    String log() throws IOException, InterruptedException {
        return post(session + "/se/log", "{\"type\":\"browser\"}");
    }

    private static String post(String address, String body) throws IOException, InterruptedException {
        return CLIENT.send(HttpRequest.newBuilder(URI.create(address)).POST(HttpRequest.BodyPublishers.ofString(body)).build(),
                BodyHandlers.ofString()).body();
    }

    @Override
    public void close() throws IOException, InterruptedException {
        try {
            CLIENT.send(HttpRequest.newBuilder(URI.create(session)).DELETE().build(), BodyHandlers.ofString());
        } finally {
            driver.destroy();
        }
    }
}
