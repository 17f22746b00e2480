package com.kelvane.media.tool.output;

/**
 * The files of one rendition.
 *
 * @param frameRate pictures per second
 * @param processed whether a module worked on it: it may change its size in mid-stream and move times
 */
public record RenditionOutput(int width, int height, double frameRate, boolean processed) {
    /** Width and height, as users write them; also the folder of its segments. */
    public String size() {
        return width + "x" + height;
    }

    /** Name of the bare stream. */
    public String streamName() {
        return size() + ".h264";
    }

    /** Name of the playable file. */
    public String containerName() {
        return size() + ".mp4";
    }

    /** Name of the pictures with the times of the source, where a module may have moved those of the result. */
    String sourceTimedName() {
        return size() + ".source.mkv";
    }
}
