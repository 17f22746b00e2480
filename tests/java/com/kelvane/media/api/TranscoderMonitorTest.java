package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.TranscoderMonitor;
import java.lang.management.ManagementFactory;
import java.util.Arrays;
import javax.management.MBeanServer;
import javax.management.ObjectName;
import javax.management.openmbean.CompositeData;
import org.junit.jupiter.api.Test;

/** What a console sees of a transcoder. */
final class TranscoderMonitorTest {
    private final MBeanServer server = ManagementFactory.getPlatformMBeanServer();

    @Test
    void showsTheFiguresUntilItIsClosed() throws Exception {
        TranscoderMonitor monitor;
        try (Transcoder transcoder = open()) {
            monitor = TranscoderMonitor.register(transcoder, "door, \"*\"");
            assertThrows(IllegalArgumentException.class, () -> TranscoderMonitor.register(transcoder, "door, \"*\""));
            for (AccessUnit unit : Vectors.timed(Vectors.PLAIN)) {
                boolean cut = unit.time() == 20 * 40;
                byte[] bytes = cut ? Arrays.copyOf(unit.bytes(), unit.bytes().length / 2) : unit.bytes();
                transcoder.write(bytes, unit.time(), picture -> { });
            }
        }
        long pictures = (long) server.getAttribute(new ObjectName(monitor.name()), "Pictures");
        assertTrue(pictures > 20, () -> pictures + " pictures");
        assertEquals(true, server.getAttribute(new ObjectName(monitor.name()), "NeedsKey"));
        CompositeData second = ((CompositeData[]) server.getAttribute(new ObjectName(monitor.name()), "Renditions"))[1];
        assertEquals("source size", second.get("size"));
        assertEquals(pictures, (long) second.get("pictures") + (long) second.get("skipped"));
        assertTrue((long) second.get("bytes") > 0 && (double) second.get("encodeSeconds") > 0, second::toString);
        monitor.close();
        monitor.close();
        assertFalse(server.isRegistered(new ObjectName(monitor.name())));
    }

    @Test
    void goesWithItsTranscoder() throws Exception {
        ObjectName name = new ObjectName(TranscoderMonitor.register(open(), "forgotten").name());
        for (int i = 0; i < 100 && server.isRegistered(name); i++) {
            System.gc();
            Thread.sleep(20);
        }
        assertFalse(server.isRegistered(name));
    }

    private static Transcoder open() {
        return Transcoder.builder().rendition(Rendition.of(160, 90).bitrate(100_000))
                .rendition(Rendition.ofSourceSize().bitrate(200_000)).open();
    }
}
