package com.kelvane.media.test;

import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;

/** Keeps what the transcoder calls it with; throws from the call with a given number on when told so,
 * another exception the first time. */
public class RecordingListener {
    public int throwFrom = -1;
    private final List<byte[]> records = new ArrayList<>();
    private int calls;

    public void receiveVideo(int index, int timestamp, ByteBuffer data) {
        int size = data == null ? 0 : data.remaining();
        ByteBuffer record = ByteBuffer.allocate(12 + size).putInt(index).putInt(timestamp).putInt(data == null ? 0 : 1);
        if (data != null) {
            record.put(data);
        }
        records.add(record.array());
        int call = calls++;
        if (throwFrom >= 0 && call >= throwFrom) {
            throw call == throwFrom ? new IllegalStateException() : new UnsupportedOperationException();
        }
    }

    public byte[][] take() {
        byte[][] taken = records.toArray(new byte[0][]);
        records.clear();
        return taken;
    }
}
