package com.kelvane.media.tool.live;

import java.io.IOException;
import java.io.OutputStream;

/** Takes what a rendition has finished, from a thread of the rendition's own. */
interface SegmentReceiver {
    /** What players are to know first. */
    void initialised(byte[] bytes) throws IOException;

    /** A segment comes, of which the number is not known yet. */
    OutputStream begin() throws IOException;

    /**
     * The segment that was begun is complete.
     *
     * @param seconds that it takes
     */
    void finished(int number, double seconds) throws IOException;

    /** There will be no such segment. */
    void failed(int number);

    /** Nothing comes any more; why, when that is not as it should be, otherwise null. */
    void ended(String problem);
}
