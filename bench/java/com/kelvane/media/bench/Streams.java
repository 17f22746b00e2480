package com.kelvane.media.bench;

import com.kelvane.media.Transcoder;
import java.nio.LongBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.List;

/** So many transcoders on as many threads, for ever. Arguments: COUNT COUNTERS PACKETS; begins when it has read a byte. */
public final class Streams {
    private Streams() {
    }

    public static void main(String[] arguments) throws Exception {
        List<byte[]> units = Packets.read(Path.of(arguments[2])).list();
        LongBuffer counters;
        try (FileChannel channel = FileChannel.open(Path.of(arguments[1]), StandardOpenOption.READ, StandardOpenOption.WRITE)) {
            counters = channel.map(FileChannel.MapMode.READ_WRITE, 0, FullMachine.COUNTERS_SIZE)
                    .order(java.nio.ByteOrder.nativeOrder()).asLongBuffer();
        }
        Ladder ladder = Ladder.of(720, 30, 3);
        Heat.videoEngines();
        counters.put(0, FullMachine.READY);
        System.in.read();
        counters.put(0, 0);
        for (int i = 0; i < Integer.parseInt(arguments[0]); i++) {
            int counter = FullMachine.COUNTER_STRIDE / Long.BYTES * i;
            new Thread(() -> serve(ladder, units, counters, counter)).start();
        }
    }

    private static void serve(Ladder ladder, List<byte[]> units, LongBuffer counters, int counter) {
        try (Transcoder transcoder = ladder.builder().open()) {
            for (long time = 0;; time++) {
                transcoder.write(units.get((int) (time % units.size())), Ladder.PICTURE_TIME * time, picture -> picture.data());
                counters.put(counter, time + 1);
                while (time + 1 == FullMachine.PICTURES_TO_WARM_UP && counters.get(counter + 1) == 0) {
                    Thread.sleep(1);
                }
            }
        } catch (InterruptedException nobodyDoes) {
            throw new IllegalStateException(nobodyDoes);
        }
    }
}
