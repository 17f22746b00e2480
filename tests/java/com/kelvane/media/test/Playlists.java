package com.kelvane.media.test;

import java.io.IOException;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.net.http.HttpResponse.BodyHandlers;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.BiConsumer;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** HLS playlists, as a player reads them. */
final class Playlists {
    /** What an address is listed for, with the tags in front of it; of a master playlist, with its attributes. */
    record Entry(URI address, Map<String, String> tags) {
        String get(String name) {
            return tags.getOrDefault(name, "");
        }

        double number(String name) {
            return Double.parseDouble("0" + get(name).replaceAll(",.*", ""));
        }

        boolean has(String name) {
            return tags.containsKey(name);
        }
    }

    private static final Pattern ATTRIBUTE = Pattern.compile("([A-Z0-9-]+)=(?:\"([^\"]*)\"|([^,]*))");
    private static final HttpClient CLIENT = HttpClient.newHttpClient();

    private Playlists() {
    }

    /** @param headers takes a server's */
    static byte[] read(URI address, BiConsumer<URI, HttpResponse<?>> headers) throws IOException {
        if (!address.getScheme().startsWith("http")) {
            return Files.readAllBytes(Path.of(address));
        }
        try {
            HttpResponse<byte[]> response = CLIENT.send(HttpRequest.newBuilder(address).header("Origin", "http://elsewhere.example")
                    .build(), BodyHandlers.ofByteArray());
            if (response.statusCode() != 200) {
                throw new IOException(address + ": status " + response.statusCode());
            }
            headers.accept(address, response);
            return response.body();
        } catch (InterruptedException interrupted) {
            throw new IOException(interrupted);
        }
    }

    /** Variants and segments, and the renditions of a master playlist that are apart. */
    static List<Entry> entries(URI playlist, String text) {
        List<Entry> entries = new ArrayList<>();
        Map<String, String> tags = new HashMap<>();
        for (String line : text.lines().toList()) {
            String name = line.replaceAll("[:,].*", "");
            if (name.equals("#EXT-X-MEDIA") || name.equals("#EXT-X-STREAM-INF") || name.equals("#EXT-X-MAP")) {
                Matcher matcher = ATTRIBUTE.matcher(line.substring(line.indexOf(':') + 1));
                while (matcher.find()) {
                    tags.put(matcher.group(1), matcher.group(2) == null ? matcher.group(3) : matcher.group(2));
                }
            } else if (name.startsWith("#")) {
                tags.put(name.substring(1), line.substring(line.indexOf(':') + 1));
            }
            boolean apart = name.equals("#EXT-X-MEDIA");
            if (apart && tags.containsKey("URI") || !line.startsWith("#") && !line.isBlank()) {
                entries.add(new Entry(playlist.resolve(apart ? tags.get("URI") : line), Map.copyOf(tags)));
            }
            if (apart || !line.startsWith("#")) { // the others hold for all segments that follow
                tags.keySet().removeIf(tag -> apart || !tag.matches("EXT-X-TARGETDURATION|EXT-X-MEDIA-SEQUENCE|URI"));
            }
        }
        return entries;
    }
}
