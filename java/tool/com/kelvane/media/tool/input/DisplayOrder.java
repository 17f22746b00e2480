package com.kelvane.media.tool.input;

import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/** Finds out in which order the pictures of a stream without timestamps are shown. */
final class DisplayOrder {
    private DisplayOrder() {
    }

    /** For each access unit the number of its picture, from 0; any near by for one that shows no picture. */
    static int[] of(MediaFile file) throws IOException {
        Progress.stage("finding the order of the pictures");
        // The position of a shown picture's packet tells which access unit it came from; its samples do not matter.
        List<String> units = new ArrayList<>();
        Map<String, Integer> ranks = new HashMap<>();
        file.probe(List.of("-threads", "2", "-skip_idct", "all", "-skip_loop_filter", "all", "-show_entries",
                "packet=pos:frame=pkt_pos"), line -> {
                    int equals = line.indexOf('=');
                    if (line.startsWith("packet|")) {
                        units.add(line.substring(equals + 1));
                    } else if (line.startsWith("frame|")) {
                        ranks.put(line.substring(equals + 1), ranks.size());
                    }
                });
        Progress.clear();
        int[] order = new int[units.size()];
        for (int i = 0; i < order.length; i++) {
            order[i] = ranks.getOrDefault(units.get(i), i == 0 ? 0 : order[i - 1]);
        }
        return order;
    }
}
