package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.NativeLog;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CountDownLatch;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Where the native library's lines go, and that nobody waits for them. */
final class NativeLogTest {
    @TempDir
    private Path folder;

    @AfterEach
    void discard() {
        NativeLog.discard();
    }

    private static void openAndClose() {
        Transcoder.builder().rendition(Rendition.of(160, 90).bitrate(100_000)).open().close();
    }

    @Test
    void goesWhereItIsSent() throws Exception {
        Path file = folder.resolve("log");
        NativeLog.toFile(file);
        openAndClose();
        Queue<NativeLog.Line> received = new ConcurrentLinkedQueue<>();
        NativeLog.to(received::add);
        openAndClose();
        NativeLog.discard();
        openAndClose();
        List<String> written = Files.readAllLines(file).stream().map(line -> line.substring(line.indexOf(' ') + 1)).toList();
        assertEquals(written.stream().map(NativeLogTest::withoutAddress).toList(), received.stream()
                .map(line -> withoutAddress(line.level() + " " + line.engine() + ": " + line.text())).toList());
        for (String line : List.of("DEBUG Transcoder: MIRVProcessor_open outputs:1", "DEBUG Transcoder: CoderOut::close index 1 w 160, h 90")) {
            assertEquals(1, written.stream().filter(text -> text.replaceAll(" +", " ").equals(line)).count(), written::toString);
        }
        assertTrue(written.stream().anyMatch(line -> line.startsWith("WARNING OpenH264: [OpenH264] this = ")), written::toString);
        assertThrows(NullPointerException.class, () -> NativeLog.to(null));
    }

    private static String withoutAddress(String line) {
        return line.replaceAll("0x\\w+", "");
    }

    @Test
    void dropsWhatAReceiverDoesNotTake() throws Exception {
        CountDownLatch taken = new CountDownLatch(1);
        Queue<NativeLog.Line> received = new ConcurrentLinkedQueue<>();
        NativeLog.to(line -> {
            try {
                taken.await();
            } catch (InterruptedException ended) {
                throw new IllegalStateException(ended);
            }
            received.add(line);
        });
        long before = NativeLog.dropped();
        for (int i = 0; i < 100; i++) {
            openAndClose();
        }
        long dropped = NativeLog.dropped() - before;
        assertTrue(dropped > 0);
        taken.countDown();
        NativeLog.discard();
        assertTrue(received.stream().anyMatch(line -> line.text().equals(dropped + " lines were dropped")),
                () -> dropped + ", " + received.size());
    }
}
