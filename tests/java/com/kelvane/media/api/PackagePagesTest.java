package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.test.Mp4;
import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.tools.ToolProvider;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** The example programs on the packages' pages and in the README compile as they stand there, and run. */
final class PackagePagesTest {
    @TempDir
    private Path folder;

    @Test
    void exampleOfTheReadmeCompiles() throws Exception {
        String text = Files.readString(Path.of(System.getProperty("test.library.sources"), "../../README.md"));
        Matcher example = Pattern.compile("```java\n(.*?public final class (\\w+).*?)```", Pattern.DOTALL).matcher(text);
        assertTrue(example.find());
        Path program = folder.resolve(example.group(2) + ".java");
        Files.writeString(program, example.group(1));
        assertEquals(0, ToolProvider.getSystemJavaCompiler().run(null, null, null, "-d", folder.toString(),
                "-cp", libraryJar(), program.toString()));
    }

    private static String libraryJar() {
        return System.getProperty("java.class.path").split(File.pathSeparator)[1];
    }

    @ParameterizedTest
    @ValueSource(strings = {"com/kelvane/media", "com/kelvane/media/transform/codec"})
    void exampleRuns(String page) throws Exception {
        String output = run(page + "/package-info.java", Path.of(System.getProperty("test.data"), Vectors.REORDERED));
        assertTrue(Pattern.compile("^30 pictures$", Pattern.MULTILINE).matcher(output).find(), output);
        if (page.endsWith("media")) {
            assertEquals(30, Vectors.decode(com.kelvane.media.AccessUnit.split(
                    Files.readAllBytes(folder.resolve("small.h264")))).size());
        }
    }

    /** What the ladder's playlists name plays on from segment to segment, and no picture and no sound is missing. */
    @Test
    void exampleOfALadderPlaysOn() throws Exception {
        Path stream = folder.resolve("stream.h264");
        for (int i = 0; i < 4; i++) { // 120 pictures, 4.8 s
            Files.write(stream, Files.readAllBytes(Path.of(System.getProperty("test.data"), Vectors.PLAIN)),
                    StandardOpenOption.CREATE, StandardOpenOption.APPEND);
        }
        Path pcm = Files.write(folder.resolve("sound.pcm"), new byte[4 * 48_000 * 48 / 10]);
        run(Path.of(System.getProperty("test.library.sources"), "../../examples/hls/HlsLadder.java"), stream, pcm);
        String master = Files.readString(folder.resolve("master.m3u8"));
        assertTrue(master.contains("CODECS=\"avc1.42c0") && master.contains(",mp4a.40.2\""), master);
        for (String name : List.of("320x180", "160x90", "sound")) {
            Path track = folder.resolve(name);
            Mp4.Track described = Mp4.Track.of(Files.readAllBytes(track.resolve("init.mp4")));
            List<Integer> segments = new ArrayList<>(); // how many units each has
            double listed = 0;
            long time = 0;
            for (String line : Files.readAllLines(track.resolve("index.m3u8"))) {
                if (line.startsWith("#EXTINF:")) {
                    listed += Double.parseDouble(line.substring(8, line.length() - 1));
                } else if (!line.startsWith("#")) {
                    List<Mp4.Sample> samples = Mp4.samples(Files.readAllBytes(track.resolve(line)), described);
                    assertEquals(time, samples.get(0).decoded(), line);
                    assertTrue(name.equals("sound") || samples.get(0).isIdr(), line);
                    time += samples.stream().mapToLong(Mp4.Sample::duration).sum();
                    segments.add(samples.size());
                }
            }
            assertEquals(name.equals("sound") ? List.of(94, 94, 37) : List.of(50, 50, 20), segments);
            assertEquals((double) time / described.timescale(), listed, 1e-4);
        }
    }

    private String run(String page, Path... arguments) throws Exception {
        String text = Files.readString(Path.of(System.getProperty("test.library.sources"), page));
        Matcher example = Pattern.compile("<pre>\\{@code\n((?:(?!</pre>).)*?public class (\\w+).*?)\n \\* }</pre>", Pattern.DOTALL).matcher(text);
        assertTrue(example.find());
        Path program = folder.resolve(example.group(2) + ".java");
        Files.writeString(program, example.group(1).replaceAll("(?m)^ \\* ?", ""));
        return run(program, arguments);
    }

    private String run(Path program, Path... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(System.getProperty("java.home") + "/bin/java", "-Xcheck:jni",
                "-Dkelvane.library=" + System.getProperty("kelvane.library"),
                "-Dkelvane.openh264=" + System.getProperty("kelvane.openh264"), "-cp", libraryJar(), program.toString()));
        Arrays.stream(arguments).map(Path::toString).forEach(command::add);
        Process run = new ProcessBuilder(command).directory(folder.toFile()).redirectErrorStream(true).start();
        String output = new String(run.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, run.waitFor(), output);
        return output;
    }
}
