package com.kelvane.media.bench;

import com.kelvane.media.Picture;
import com.kelvane.media.VideoEncoder;
import java.util.ArrayList;
import java.util.List;

/** Makes the virtual machine compile what stands around the codecs, on pictures so small that they take the codecs no time. */
final class Heat {
    private static final int SIDE = 32; // pixels
    private static final int PICTURES = 50;
    private static final int LAPS = 400; // compiled for good behind 15,000 calls

    private Heat() {
    }

    static void videoEngines() throws Exception {
        List<byte[]> units = new ArrayList<>();
        try (VideoEncoder encoder = VideoEncoder.builder().size(SIDE, SIDE).frameRate(30).bitrate(300_000).open()) {
            for (int i = 0; i < PICTURES; i++) {
                Picture grey = new Picture(SIDE, SIDE, Ladder.PICTURE_TIME * i, new byte[SIDE * SIDE * 3 / 2]);
                encoder.encode(grey).ifPresent(unit -> units.add(unit.bytes()));
            }
        }
        Ladder.Rung rung = new Ladder.Rung(SIDE, SIDE, 100_000);
        Ladder ladder = new Ladder(30, List.of(rung, rung, rung));
        for (Contest.Pass pass : List.of(ladder.natives(units), ladder.api(units, null), Engines.decode(units),
                Engines.pipeline(units, 30, null))) {
            pass.run(false, new Turns(0, LAPS));
        }
    }
}
