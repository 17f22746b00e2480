package com.kelvane.media.tool.output;

import com.kelvane.media.tool.packager.Names;

/**
 * What is made of each rendition.
 *
 * @param mp4 a playable file with the sound
 * @param raw the bare stream
 * @param segmentSeconds length of the segments of an HLS ladder, 0 for none
 */
public record Products(boolean mp4, boolean raw, int segmentSeconds) {
    /** Whether there is to be an HLS ladder. */
    public boolean hls() {
        return segmentSeconds > 0;
    }

    /** Whether an MP4 file is written: with nothing else that has the pictures' times, the comparison reads one. */
    boolean writesMp4() {
        return mp4 || !hls();
    }

    /** The file that has a rendition's pictures with the times of the source. */
    String comparedName(RenditionOutput output) {
        return output.processed() ? output.sourceTimedName()
                : writesMp4() ? output.containerName() : output.size() + "/" + Names.PLAYLIST;
    }
}
