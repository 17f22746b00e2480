package com.kelvane.media.test;

import java.io.IOException;
import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;

/**
 * Has chromium play HLS ladders of the clip that tests/player/clip makes, all at the same time, and prints where sound and
 * pictures were seen and heard. Arguments: the folder with player.html; one with the players' scripts, hls.js and shaka.js as
 * far as they are there; "any-origin" where ladders need not allow other pages; how many seconds all may take; then for each
 * case its parameters, such as {@code name=mkv&player=hls.js&plan=ends&seconds=60&url=FILE-OR-ADDRESS}. A case whose player is
 * not there is left out, with a line that says so.
 */
public final class PlayerCheck {
    private PlayerCheck() {
    }

    public static void main(String[] arguments) throws Exception {
        Path page = Path.of(arguments[0]);
        Path scripts = Path.of(arguments[1]);
        List<String> options = new ArrayList<>(List.of("--window-size=1400,1000"));
        if (arguments[2].equals("any-origin")) {
            options.add("--disable-web-security");
        }
        BlockingQueue<String> results = new LinkedBlockingQueue<>();
        List<String> cases = new ArrayList<>();
        boolean right = true;
        try (FileServer server = new FileServer()) {
            for (int i = 4; i < arguments.length; i++) {
                String player = arguments[i].replaceAll(".*player=([^&]+).*", "$1");
                if (!player.equals("browser") && !Files.exists(scripts.resolve(script(player)))) {
                    System.out.println("not played, as " + player + " is not there: " + arguments[i]);
                    continue;
                }
                cases.add(served(server, arguments[i], i));
            }
            server.add("/player/", page);
            server.add("/scripts/", scripts);
            server.add("/cases", exchange -> {
                byte[] text = String.join("\n", cases).getBytes(StandardCharsets.UTF_8);
                exchange.sendResponseHeaders(200, text.length);
                exchange.getResponseBody().write(text);
                exchange.close();
            });
            server.add("/result", exchange -> {
                results.add(new String(exchange.getRequestBody().readAllBytes(), StandardCharsets.UTF_8));
                exchange.sendResponseHeaders(204, -1);
                exchange.close();
            });
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(Long.parseLong(arguments[3]));
            try (Browser browser = new Browser(options.toArray(String[]::new))) {
                browser.open(server.address() + "/player/player.html");
                for (int i = 0; i < cases.size(); i++) {
                    String result = results.poll(end - System.nanoTime(), TimeUnit.NANOSECONDS);
                    if (result == null) {
                        result = "FAULT: " + (cases.size() - i) + " players were not done in " + arguments[3] + " s";
                        i = cases.size();
                    }
                    right &= !result.contains("FAULT");
                    System.out.println(result.replace("\n", "\n  "));
                }
                if (!right) {
                    System.out.println("console: " + browser.log());
                }
            }
        }
        System.exit(right && !cases.isEmpty() ? 0 : 1);
    }

    private static String script(String player) {
        return player.endsWith(".js") ? player : player + ".js";
    }

    /** The case with an address in place of a file. */
    private static String served(FileServer server, String parameters, int number) throws IOException {
        int begin = parameters.indexOf("url=") + 4;
        int next = parameters.indexOf('&', begin);
        String url = parameters.substring(begin, next < 0 ? parameters.length() : next);
        if (!url.startsWith("http:")) {
            Path file = Path.of(url).toRealPath();
            server.add("/" + number + "/", file.getParent());
            url = server.address() + "/" + number + "/" + file.getFileName();
        }
        return parameters.substring(0, begin) + URLEncoder.encode(url, StandardCharsets.UTF_8)
                + (next < 0 ? "" : parameters.substring(next));
    }
}
