package com.kelvane.media.spark;

import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.IOException;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.security.SecureRandom;
import java.util.HexFormat;
import java.util.Map;
import java.util.Queue;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.Executors;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.AtomicReference;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.apache.hadoop.fs.FSDataInputStream;
import org.apache.hadoop.fs.FileSystem;
import org.apache.hadoop.fs.Path;

/**
 * Hands files of Hadoop's file systems to FFmpeg's programs, any part of them: over HTTP, on the loopback address, under
 * names that only who is told them knows. FFmpeg seeks by the container's index, and so reads the chunk at hand and no more.
 */
final class RangeServer {
    private static final Pattern RANGE = Pattern.compile("bytes=(\\d{1,18})-(\\d{1,18})?");
    private static final int BUFFER = 1 << 16; // bytes
    private static final int NAME_LENGTH = 16; // bytes
    private static RangeServer shared;

    private final HttpServer server;
    private final SecureRandom random = new SecureRandom();
    private final Map<String, Offer> offers = new ConcurrentHashMap<>();

    /**
     * A file that is offered.
     *
     * @param read how much of it was
     * @param failure the first of reading it, if any
     * @param idle streams from which nobody reads: opening one may take a question to another machine
     */
    record Offer(FileSystem files, Path path, long length, String address, AtomicLong read,
                 AtomicReference<IOException> failure, Queue<FSDataInputStream> idle) {
    }

    private RangeServer() throws IOException {
        server = HttpServer.create(new InetSocketAddress(InetAddress.getByAddress(new byte[] {127, 0, 0, 1}), 0), 0);
        server.setExecutor(Executors.newCachedThreadPool(work -> {
            Thread thread = new Thread(work, "kelvane-input");
            thread.setDaemon(true);
            return thread;
        }));
        server.createContext("/", this::answer);
        server.start();
    }

    /** The one of this virtual machine. */
    static synchronized RangeServer shared() throws IOException {
        if (shared == null) {
            shared = new RangeServer();
        }
        return shared;
    }

    Offer offer(FileSystem files, Path path, long length) {
        byte[] name = new byte[NAME_LENGTH];
        random.nextBytes(name);
        String place = "/" + HexFormat.of().formatHex(name);
        Offer offer = new Offer(files, path, length, "http://127.0.0.1:" + server.getAddress().getPort() + place,
                new AtomicLong(), new AtomicReference<>(), new ConcurrentLinkedQueue<>());
        offers.put(place, offer);
        return offer;
    }

    void withdraw(Offer offer) throws IOException {
        offers.values().remove(offer);
        closeIdle(offer);
    }

    private static void closeIdle(Offer offer) throws IOException {
        for (FSDataInputStream file = offer.idle.poll(); file != null; file = offer.idle.poll()) {
            file.close();
        }
    }

    private void answer(HttpExchange exchange) throws IOException {
        try (exchange) {
            Offer offer = offers.get(exchange.getRequestURI().getPath());
            if (offer == null || !exchange.getRequestMethod().equals("GET")) {
                exchange.sendResponseHeaders(offer == null ? 404 : 405, -1);
                return;
            }
            Matcher range = RANGE.matcher(String.valueOf(exchange.getRequestHeaders().getFirst("Range")));
            boolean partial = range.matches();
            long from = partial ? Long.parseLong(range.group(1)) : 0;
            long end = partial && range.group(2) != null ? Math.min(offer.length, Long.parseLong(range.group(2)) + 1)
                    : offer.length;
            exchange.getResponseHeaders().set("Accept-Ranges", "bytes");
            if (from >= end) {
                exchange.getResponseHeaders().set("Content-Range", "bytes */" + offer.length);
                exchange.sendResponseHeaders(416, -1);
                return;
            }
            if (partial) {
                exchange.getResponseHeaders().set("Content-Range", "bytes " + from + "-" + (end - 1) + "/" + offer.length);
            }
            exchange.sendResponseHeaders(partial ? 206 : 200, end - from);
            copy(offer, from, end, exchange.getResponseBody());
        }
    }

    // FFmpeg hangs up when it has what it wants, which ends the copy with an exception that nobody needs to see. When the file
    // cannot be read any further FFmpeg takes that for its end, which it is not: hence the note of it.
    private void copy(Offer offer, long from, long end, OutputStream body) throws IOException {
        byte[] buffer = new byte[BUFFER];
        FSDataInputStream file = open(offer, from);
        try {
            for (long at = from; at < end;) {
                int count = read(offer, file, buffer, (int) Math.min(buffer.length, end - at));
                body.write(buffer, 0, count);
                at += count;
            }
        } finally {
            offer.idle.add(file);
            if (!offers.containsValue(offer)) { // withdrawn meanwhile
                closeIdle(offer);
            }
        }
    }

    private static FSDataInputStream open(Offer offer, long from) throws IOException {
        FSDataInputStream file = offer.idle.poll();
        try {
            file = file == null ? offer.files.open(offer.path) : file;
            file.seek(from);
            return file;
        } catch (IOException failure) {
            offer.failure.compareAndSet(null, failure);
            if (file != null) {
                file.close();
            }
            throw failure;
        }
    }

    private static int read(Offer offer, FSDataInputStream file, byte[] buffer, int wanted) throws IOException {
        try {
            int count = file.read(buffer, 0, wanted);
            if (count < 0) {
                throw new IOException(offer.path + " is shorter than it was");
            }
            offer.read.addAndGet(count);
            return count;
        } catch (IOException failure) {
            offer.failure.compareAndSet(null, failure);
            throw failure;
        }
    }
}
