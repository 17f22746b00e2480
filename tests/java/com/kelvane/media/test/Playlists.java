package com.kelvane.media.test;

import java.io.IOException;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.net.http.HttpResponse.BodyHandlers;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.BiConsumer;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** HLS playlists, as a player reads them. */
final class Playlists {
    /**
     * An entry of a media playlist.
     *
     * @param begins whether a discontinuity lies in front of it
     * @param map the initialisation segment, or null
     * @param date null where none is said
     */
    record Segment(URI address, double seconds, boolean begins, URI map, Instant date, boolean isGap) {
    }

    /** @param target in seconds */
    record Media(URI address, int target, long sequence, String type, boolean isComplete, List<Segment> segments) {
    }

    /** An element of the master playlist: its attributes, and the address of a media playlist, or null. */
    record Entry(URI address, Map<String, String> attributes) {
        String get(String name) {
            return attributes.getOrDefault(name, "");
        }
    }

    record Master(List<Entry> variants, List<Entry> renditions) {
    }

    private static final Pattern ATTRIBUTE = Pattern.compile("([A-Z0-9-]+)=(?:\"([^\"]*)\"|([^,]*))");
    private static final HttpClient CLIENT = HttpClient.newHttpClient();

    private Playlists() {
    }

    /** @param headers takes a server's, if it is not null */
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

    static Master master(URI address, String text) {
        List<Entry> variants = new ArrayList<>();
        List<Entry> renditions = new ArrayList<>();
        Map<String, String> attributes = null;
        for (String line : text.lines().toList()) {
            if (line.startsWith("#EXT-X-STREAM-INF:")) {
                attributes = attributes(line);
            } else if (line.startsWith("#EXT-X-MEDIA:")) {
                Map<String, String> found = attributes(line);
                renditions.add(new Entry(found.containsKey("URI") ? address.resolve(found.get("URI")) : null, found));
            } else if (!line.startsWith("#") && !line.isBlank() && attributes != null) {
                variants.add(new Entry(address.resolve(line), attributes));
                attributes = null;
            }
        }
        return new Master(variants, renditions);
    }

    private static Map<String, String> attributes(String line) {
        Map<String, String> found = new HashMap<>();
        Matcher matcher = ATTRIBUTE.matcher(line.substring(line.indexOf(':') + 1));
        while (matcher.find()) {
            found.put(matcher.group(1), matcher.group(2) == null ? matcher.group(3) : matcher.group(2));
        }
        return found;
    }

    static Media media(URI address, String text) {
        int target = 0;
        long sequence = 0;
        String type = "";
        boolean complete = false;
        List<Segment> segments = new ArrayList<>();
        double seconds = -1;
        boolean begins = false;
        boolean gap = false;
        URI map = null;
        Instant date = null;
        for (String line : text.lines().toList()) {
            String value = line.substring(line.indexOf(':') + 1);
            if (line.startsWith("#EXT-X-TARGETDURATION:")) {
                target = Integer.parseInt(value);
            } else if (line.startsWith("#EXT-X-MEDIA-SEQUENCE:")) {
                sequence = Long.parseLong(value);
            } else if (line.startsWith("#EXT-X-PLAYLIST-TYPE:")) {
                type = value;
            } else if (line.equals("#EXT-X-ENDLIST")) {
                complete = true;
            } else if (line.equals("#EXT-X-DISCONTINUITY")) {
                begins = true;
            } else if (line.equals("#EXT-X-GAP")) {
                gap = true;
            } else if (line.startsWith("#EXT-X-MAP:")) {
                map = address.resolve(attributes(line).get("URI"));
            } else if (line.startsWith("#EXT-X-PROGRAM-DATE-TIME:")) {
                date = Instant.parse(value);
            } else if (line.startsWith("#EXTINF:")) {
                seconds = Double.parseDouble(value.replaceAll(",.*", ""));
            } else if (!line.startsWith("#") && !line.isBlank()) {
                segments.add(new Segment(address.resolve(line), seconds, begins, map, date, gap));
                seconds = -1;
                begins = false;
                gap = false;
                date = null;
            }
        }
        return new Media(address, target, sequence, type, complete, segments);
    }
}
