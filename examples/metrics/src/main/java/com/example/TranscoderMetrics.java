package com.example;

import com.kelvane.media.AccessUnit;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder;
import com.kelvane.media.Transcoder.RenditionStatistics;
import io.micrometer.core.instrument.FunctionCounter;
import io.micrometer.core.instrument.Gauge;
import io.micrometer.core.instrument.Meter;
import io.micrometer.core.instrument.MeterRegistry;
import io.micrometer.core.instrument.Tags;
import io.micrometer.core.instrument.TimeGauge;
import io.micrometer.core.instrument.binder.MeterBinder;
import io.micrometer.core.instrument.simple.SimpleMeterRegistry;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.ToLongFunction;

/**
 * A transcoder's figures as Micrometer's meters. They are read when the registry is, on its thread, and cost the transcoder
 * nothing. The registry would keep a transcoder's meters for ever: {@link #close} takes them out when the stream has ended.
 *
 * <p>Arguments: STREAM.h264; its meters are printed.
 */
public final class TranscoderMetrics implements MeterBinder, AutoCloseable {
    private final Transcoder transcoder;
    private final Tags stream;
    private final List<Runnable> removals = new ArrayList<>();

    public TranscoderMetrics(Transcoder transcoder, String stream) {
        this.transcoder = transcoder;
        this.stream = Tags.of("stream", stream);
    }

    @Override
    public void bindTo(MeterRegistry registry) {
        keep(registry, FunctionCounter.builder("media.pictures.decoded", transcoder, of -> of.statistics().pictures())
                .description("Stands still when the stream is dead").tags(stream).register(registry));
        keep(registry, Gauge.builder("media.needs.key", transcoder, of -> of.needsKey() ? 1 : 0)
                .description("1 while a key picture of the source would help").tags(stream).register(registry));
        keep(registry, TimeGauge.builder("media.decode.time", transcoder, TimeUnit.NANOSECONDS,
                of -> of.statistics().decodeTime().toNanos()).tags(stream).register(registry));
        for (int i = 0; i < transcoder.renditions().size(); i++) {
            Tags tags = stream.and("rendition", Integer.toString(i));
            count(registry, "media.pictures.encoded", tags, i, RenditionStatistics::pictures);
            count(registry, "media.pictures.skipped", tags, i, RenditionStatistics::skipped);
            count(registry, "media.pictures.failed", tags, i, RenditionStatistics::failed);
            count(registry, "media.bytes", tags, i, RenditionStatistics::bytes);
        }
    }

    private void count(MeterRegistry registry, String name, Tags tags, int index, ToLongFunction<RenditionStatistics> figure) {
        keep(registry, FunctionCounter.builder(name, transcoder,
                of -> figure.applyAsLong(of.statistics().renditions().get(index))).tags(tags).register(registry));
    }

    private void keep(MeterRegistry registry, Meter meter) {
        removals.add(() -> registry.remove(meter));
    }

    @Override
    public void close() {
        removals.forEach(Runnable::run);
    }

    public static void main(String[] arguments) throws Exception {
        MeterRegistry registry = new SimpleMeterRegistry();
        try (Transcoder transcoder = Transcoder.builder().rendition(Rendition.of(320, 180).bitrate(300_000)).open();
                TranscoderMetrics metrics = new TranscoderMetrics(transcoder, "demo")) {
            metrics.bindTo(registry);
            long time = 0;
            for (byte[] unit : AccessUnit.split(Files.readAllBytes(Path.of(arguments[0])))) {
                transcoder.write(unit, time, picture -> { });
                time += 40;
            }
            for (Meter meter : registry.getMeters()) {
                System.err.println(meter.getId().getName() + " " + meter.measure().iterator().next().getValue());
            }
        }
        System.err.println(registry.getMeters().size() + " meters left");
    }
}
