package com.kelvane.media;

import com.kelvane.media.Transcoder.RenditionStatistics;
import java.lang.management.ManagementFactory;
import java.lang.ref.Cleaner;
import java.lang.ref.WeakReference;
import java.time.Duration;
import java.util.List;
import java.util.Objects;
import javax.management.InstanceAlreadyExistsException;
import javax.management.JMException;
import javax.management.MBeanServer;
import javax.management.ObjectName;
import javax.management.StandardMBean;

/**
 * Shows a transcoder's figures in JMX, as a {@link TranscoderMXBean} of the platform's MBean server.
 * <pre>{@code
 * try (Transcoder ladder = Transcoder.builder()….open();
 *         TranscoderMonitor monitor = TranscoderMonitor.register(ladder, "camera 7")) {
 *     …
 * }
 * }</pre>
 *
 * <p>The name is {@code com.kelvane.media:type=Transcoder,name="camera 7"}. Reading takes no lock and waits for nobody. A
 * monitor does not keep its transcoder from being collected, and goes with it when nobody has closed either. It needs the module
 * {@code java.management}, which nothing else of this library does.
 */
public final class TranscoderMonitor implements AutoCloseable {
    private static final Cleaner CLEANER = Cleaner.create();

    private final Cleaner.Cleanable registration;
    private final ObjectName name;

    private TranscoderMonitor(Cleaner.Cleanable registration, ObjectName name) {
        this.registration = registration;
        this.name = name;
    }

    /**
     * Registers a transcoder.
     *
     * @param transcoder may be used and closed while it is registered
     * @param stream what the stream is called, in any characters
     * @return to be closed when the stream has ended
     * @throws IllegalArgumentException if a transcoder is registered under that name
     */
    public static TranscoderMonitor register(Transcoder transcoder, String stream) {
        Objects.requireNonNull(transcoder, "transcoder");
        MBeanServer server = ManagementFactory.getPlatformMBeanServer();
        try {
            ObjectName name = new ObjectName("com.kelvane.media:type=Transcoder,name=" + ObjectName.quote(stream));
            server.registerMBean(new StandardMBean(new Bean(new WeakReference<>(transcoder)), TranscoderMXBean.class, true), name);
            return new TranscoderMonitor(CLEANER.register(transcoder, () -> unregister(server, name)), name);
        } catch (InstanceAlreadyExistsException taken) {
            throw new IllegalArgumentException("there is a monitor with the name " + ObjectName.quote(stream), taken);
        } catch (JMException refused) {
            throw new MediaException("JMX refuses the monitor of " + stream, refused);
        }
    }

    private static void unregister(MBeanServer server, ObjectName name) {
        try {
            server.unregisterMBean(name);
        } catch (JMException gone) {
            // Somebody else has done it.
        }
    }

    /** {@return the object name in the MBean server} */
    public String name() {
        return name.getCanonicalName();
    }

    /** Takes the transcoder's figures out of JMX; nothing when that was done before. */
    @Override
    public void close() {
        registration.clean();
    }

    private record Bean(WeakReference<Transcoder> transcoder) implements TranscoderMXBean {
        private Transcoder present() {
            Transcoder present = transcoder.get();
            if (present == null) {
                throw new IllegalStateException("the transcoder was collected");
            }
            return present;
        }

        @Override
        public long getPictures() {
            return present().statistics().pictures();
        }

        @Override
        public double getDecodeSeconds() {
            return seconds(present().statistics().decodeTime());
        }

        @Override
        public boolean isNeedsKey() {
            return present().needsKey();
        }

        @Override
        public List<Figures> getRenditions() {
            return present().statistics().renditions().stream().<Figures>map(RenditionBean::new).toList();
        }
    }

    private record RenditionBean(RenditionStatistics figures) implements TranscoderMXBean.Figures {
        @Override
        public String getSize() {
            return figures.rendition().size();
        }

        @Override
        public int getBitrate() {
            return figures.rendition().bitrate();
        }

        @Override
        public long getPictures() {
            return figures.pictures();
        }

        @Override
        public long getSkipped() {
            return figures.skipped();
        }

        @Override
        public long getFailed() {
            return figures.failed();
        }

        @Override
        public long getBytes() {
            return figures.bytes();
        }

        @Override
        public double getEncodeSeconds() {
            return seconds(figures.encodeTime());
        }
    }

    private static double seconds(Duration time) {
        return time.toNanos() / 1e9;
    }
}
