package com.kelvane.media.tool.output;

import com.kelvane.media.EncoderFailure;
import com.kelvane.media.tool.shell.Text;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.function.Consumer;

/** Pictures that are missing from renditions because the encoder failed at them. */
public final class LostPictures implements Consumer<EncoderFailure> {
    /** Exit code of a command whose results lack pictures. */
    public static final int EXIT_CODE = 3;

    private record Lost(EncoderFailure first, long count) {
    }

    private final Map<Integer, Lost> ofRenditions = new TreeMap<>();

    @Override
    public void accept(EncoderFailure failure) {
        if (failure.lost()) {
            ofRenditions.merge(failure.index(), new Lost(failure, 1), (known, one) -> new Lost(known.first, known.count + 1));
        }
    }

    /** Why the first one is missing from a rendition; null when none is. */
    public String reason(int index) {
        Lost lost = ofRenditions.get(index);
        return lost == null ? null : lost.first.reason();
    }

    /** A line for each rendition that lacks pictures. */
    public List<String> lines(List<String> names) {
        List<String> lines = new ArrayList<>();
        ofRenditions.forEach((index, lost) -> lines.add(Text.format("%s lacks %d picture%s, the first at %.2f s: %s",
                names.get(index), lost.count, lost.count == 1 ? "" : "s", lost.first.time() / 1000.0, lost.first.reason())));
        return lines;
    }
}
