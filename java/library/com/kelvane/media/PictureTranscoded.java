package com.kelvane.media;

import jdk.jfr.Category;
import jdk.jfr.Description;
import jdk.jfr.Event;
import jdk.jfr.Label;
import jdk.jfr.Name;
import jdk.jfr.StackTrace;
import jdk.jfr.Threshold;
import jdk.jfr.Timespan;

@Name("com.kelvane.media.PictureTranscoded")
@Label("Picture Transcoded")
@Category("Kelvane Media")
@Description("A transcoder decoded a picture and encoded it into its renditions; the duration includes the callbacks")
@Threshold("20 ms")
@StackTrace(false)
final class PictureTranscoded extends Event {
    @Label("Handle")
    @Description("The transcoder's, as in the event that tells of its opening")
    long handle;

    @Label("Picture Time")
    @Timespan(Timespan.MILLISECONDS)
    long time;

    @Label("Decode Time")
    @Timespan
    long decodeTime;

    @Label("Encode Time")
    @Description("Scaling and encoding, summed over the renditions")
    @Timespan
    long encodeTime;

    @Label("Bytes")
    @Description("Of all renditions' access units")
    long bytes;
}
