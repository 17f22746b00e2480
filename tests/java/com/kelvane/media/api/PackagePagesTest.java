package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
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
        String text = Files.readString(Path.of(System.getProperty("test.library.sources"), page, "package-info.java"));
        Matcher example = Pattern.compile("<pre>\\{@code\n(.*?public class (\\w+).*?)\n \\* }</pre>", Pattern.DOTALL).matcher(text);
        assertTrue(example.find());
        Path program = folder.resolve(example.group(2) + ".java");
        Files.writeString(program, example.group(1).replaceAll("(?m)^ \\* ?", ""));
        Process run = new ProcessBuilder(System.getProperty("java.home") + "/bin/java", "-Xcheck:jni",
                "-Dkelvane.library=" + System.getProperty("kelvane.library"),
                "-Dkelvane.openh264=" + System.getProperty("kelvane.openh264"),
                "-cp", libraryJar(), program.toString(),
                Path.of(System.getProperty("test.data"), Vectors.REORDERED).toString())
                .directory(folder.toFile()).redirectErrorStream(true).start();
        String output = new String(run.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, run.waitFor(), output);
        assertTrue(Pattern.compile("^30 pictures$", Pattern.MULTILINE).matcher(output).find(), output);
        if (page.endsWith("media")) {
            assertEquals(30, Vectors.decode(com.kelvane.media.AccessUnit.split(
                    Files.readAllBytes(folder.resolve("small.h264")))).size());
        }
    }
}
