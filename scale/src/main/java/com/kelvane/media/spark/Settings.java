package com.kelvane.media.spark;

import java.io.Serializable;
import java.util.ArrayList;

/**
 * What is to be made of every input.
 *
 * @param renditions as they were asked for; none stands for the usual ones
 * @param sound number of the track from 1, 0 for none, null for the file's own choice
 * @param segmentSeconds length of HLS segments
 * @param chunkSeconds length of what one task transcodes
 */
record Settings(ArrayList<String> renditions, Integer sound, int segmentSeconds, int chunkSeconds) implements Serializable {
    private static final long serialVersionUID = 1;
}
