package com.kelvane.media.bench;

import java.nio.ByteBuffer;
import java.util.zip.CRC32;

/**
 * What a pass took and gave: nanoseconds of its thread's CPU, nanoseconds by the clock, units that came out, their bytes
 * and, of a pass that was checked, their checksum.
 */
record Spent(long cpu, long wall, long units, long bytes, long checksum) {
    /** Work that hands over all that it produces. */
    interface Work {
        void on(Output output) throws Exception;
    }

    /** Receives what comes out. */
    static final class Output {
        private final boolean checked;
        private final CRC32 sum = new CRC32();
        private long units;
        private long bytes;

        private Output(boolean checked) {
            this.checked = checked;
        }

        void add(ByteBuffer data) {
            units++;
            bytes += data.remaining();
            if (checked) {
                sum.update(data);
            }
        }

        void add(byte[] data, int size) {
            units++;
            bytes += size;
            if (checked) {
                sum.update(data, 0, size);
            }
        }
    }

    static Spent by(boolean checked, Turns turns, Work work) throws Exception {
        Output output = new Output(checked);
        turns.startClocks();
        work.on(output);
        turns.stopClocks();
        return new Spent(turns.cpu(), turns.wall(), output.units, output.bytes, output.sum.getValue());
    }

    boolean gaveTheSameAs(Spent other) {
        return units == other.units && bytes == other.bytes && checksum == other.checksum;
    }
}
