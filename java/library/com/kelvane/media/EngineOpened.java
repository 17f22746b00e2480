package com.kelvane.media;

import jdk.jfr.Category;
import jdk.jfr.Description;
import jdk.jfr.Event;
import jdk.jfr.Label;
import jdk.jfr.Name;

@Name("com.kelvane.media.EngineOpened")
@Label("Engine Opened")
@Category("Kelvane Media")
@Description("A native engine was made; the duration is what making it took")
final class EngineOpened extends Event {
    @Label("Engine")
    String engine;

    @Label("Handle")
    @Description("The same in the event that tells of its end")
    long handle;
}
