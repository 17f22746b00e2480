package com.kelvane.media.test;

import java.nio.ByteBuffer;

/** A listener of a class of its own, whose receiveVideo is not the first method. */
public class OtherListener {
    private int received;

    public byte[][] take() {
        byte[][] taken = new byte[received][12];
        received = 0;
        return taken;
    }

    public void receiveVideo(int index, int timestamp, ByteBuffer data) {
        received++;
    }
}
