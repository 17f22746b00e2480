package com.kelvane.media;

import jdk.jfr.Category;
import jdk.jfr.Description;
import jdk.jfr.Event;
import jdk.jfr.Label;
import jdk.jfr.Name;
import jdk.jfr.StackTrace;
import jdk.jfr.Timespan;

@Name("com.kelvane.media.PictureFailed")
@Label("Picture Failed")
@Category("Kelvane Media")
@Description("An encoder failed at a picture and was made anew")
@StackTrace(false)
final class PictureFailed extends Event {
    @Label("Engine")
    String engine;

    @Label("Handle")
    @Description("As in the event that tells of the engine's opening")
    long handle;

    @Label("Rendition")
    @Description("Its position, from 0")
    int index;

    @Label("Picture Time")
    @Description("Of a VideoEncoder's picture, it is taken for milliseconds")
    @Timespan(Timespan.MILLISECONDS)
    long time;

    @Label("Lost")
    @Description("Whether the picture is missing; otherwise the new encoder has encoded it")
    boolean lost;

    @Label("Reason")
    String reason;
}
