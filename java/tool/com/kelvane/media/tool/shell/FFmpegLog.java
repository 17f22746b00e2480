package com.kelvane.media.tool.shell;

import com.kelvane.media.VideoDecoder;

/** The log of the FFmpeg libraries in this process, which goes to standard error. */
public final class FFmpegLog {
    private FFmpegLog() {
    }

    /** Silences it for the rest of the process: damage is counted, not logged. */
    public static void silence() {
        VideoDecoder.open().close(); // which does so
    }
}
