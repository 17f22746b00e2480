package com.kelvane.media.spark;

import com.kelvane.media.Rendition;
import com.kelvane.media.tool.output.SegmentKeys;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.shell.Failure;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;

/**
 * The renditions of one input, as `kelvane transcode` makes them.
 *
 * @param renditions with all their settings
 * @param outputs their folders and rates
 */
record Ladder(List<Rendition> renditions, List<RenditionOutput> outputs) {
    static Ladder of(VideoTrack track, Settings settings) {
        List<RenditionRequest> requests = settings.renditions().isEmpty() ? RenditionRequest.ladder(track)
                : settings.renditions().stream().map(text -> new RenditionRequest.Converter().convert(text)).toList();
        List<Rendition> renditions = new ArrayList<>();
        List<RenditionOutput> outputs = new ArrayList<>();
        Set<String> sizes = new HashSet<>();
        for (RenditionRequest request : requests) {
            Rendition rendition = request.completed(track.frameRate());
            boolean given = request.settings().keyInterval() > 0;
            renditions.add(given ? rendition : SegmentKeys.withoutOwn(rendition, settings.segmentSeconds()));
            RenditionOutput output = new RenditionOutput(rendition.width(), rendition.height(),
                    request.pictureRate(track.frameRate()), false);
            outputs.add(output);
            if (!sizes.add(output.size())) {
                throw new Failure("there are two renditions of %s; folders are named after sizes", output.size());
            }
        }
        return new Ladder(renditions, outputs);
    }
}
