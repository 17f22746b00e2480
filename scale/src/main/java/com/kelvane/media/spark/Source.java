package com.kelvane.media.spark;

import java.io.Serializable;

/**
 * An input of the job.
 *
 * @param uri where Hadoop finds it
 * @param folder where its results go, a folder of its own
 * @param length in bytes
 * @param modified time of its last change, in milliseconds
 */
record Source(String uri, String folder, long length, long modified) implements Serializable {
    private static final long serialVersionUID = 1;

    /** The last part of its address. */
    String name() {
        return uri.substring(uri.lastIndexOf('/') + 1);
    }
}
