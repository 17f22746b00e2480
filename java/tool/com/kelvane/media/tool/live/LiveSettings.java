package com.kelvane.media.tool.live;

import com.kelvane.media.tool.output.RenditionRequest;
import java.net.InetSocketAddress;
import java.nio.file.Path;
import java.util.List;

/**
 * What was asked for.
 *
 * @param renditions empty for the usual ones
 * @param directory absolute
 * @param segmentSeconds length of a segment
 * @param window seconds to keep, 0 for all
 * @param address to serve at, or null
 */
public record LiveSettings(List<RenditionRequest> renditions, Path directory, int segmentSeconds, int window,
                           InetSocketAddress address) {
}
