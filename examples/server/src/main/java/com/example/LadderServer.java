package com.example;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.EncodedPicture;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import java.io.IOException;
import java.io.OutputStream;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * The core of a media server: every stream has a transcoder of its own and a thread to run it on. The streams are raw H.264
 * files here, of 25 pictures a second without reordering; a server has them from its network.
 *
 * <p>Arguments: FOLDER STREAM.h264...; each stream's renditions go to FOLDER/STREAM-WxH.h264.
 */
public final class LadderServer {
    private static final int MILLISECONDS_PER_PICTURE = 40;
    private static final List<Rendition> LADDER = List.of(
            Rendition.of(640, 360).bitrate(800_000).frameRate(25).keyInterval(50),
            Rendition.of(320, 180).bitrate(300_000).frameRate(25).keyInterval(50));

    private LadderServer() {
    }

    public static void main(String[] arguments) throws Exception {
        Path folder = Files.createDirectories(Path.of(arguments[0]));
        ExecutorService threads = Executors.newFixedThreadPool(Runtime.getRuntime().availableProcessors());
        List<Future<String>> streams = new ArrayList<>();
        for (int i = 1; i < arguments.length; i++) {
            Path stream = Path.of(arguments[i]);
            streams.add(threads.submit(() -> transcode(stream, folder)));
        }
        for (Future<String> stream : streams) {
            System.err.println(stream.get());
        }
        threads.shutdown();
    }

    private static String transcode(Path stream, Path folder) throws IOException {
        List<OutputStream> files = new ArrayList<>();
        try (Transcoder transcoder = Transcoder.builder().renditions(LADDER).open()) {
            for (Rendition rendition : LADDER) {
                files.add(Files.newOutputStream(folder.resolve(stream.getFileName().toString().replaceFirst("\\.h264$", "")
                        + "-" + rendition.width() + "x" + rendition.height() + ".h264")));
            }
            long time = 0;
            for (byte[] unit : AccessUnit.split(Files.readAllBytes(stream))) {
                transcoder.write(unit, time, picture -> send(picture, files.get(picture.index())));
                time += MILLISECONDS_PER_PICTURE;
            }
            transcoder.drain(picture -> send(picture, files.get(picture.index())));
            Transcoder.Statistics figures = transcoder.statistics();
            return String.format(Locale.ROOT, "%s: %d pictures, decoded in %d ms, encoded in %s", stream, figures.pictures(),
                    figures.decodeTime().toMillis(), figures.renditions().stream()
                            .map(rendition -> rendition.encodeTime().toMillis() + " ms").toList());
        } finally {
            for (OutputStream file : files) {
                file.close();
            }
        }
    }

    // Called on the stream's thread; the picture's bytes are valid until it returns.
    private static void send(EncodedPicture picture, OutputStream file) {
        try {
            file.write(picture.copy());
        } catch (IOException full) {
            throw new UncheckedIOException(full);
        }
    }
}
