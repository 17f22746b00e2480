package com.kelvane.media;

import jdk.jfr.Category;
import jdk.jfr.Description;
import jdk.jfr.Event;
import jdk.jfr.Label;
import jdk.jfr.Name;

@Name("com.kelvane.media.EngineClosed")
@Label("Engine Closed")
@Category("Kelvane Media")
@Description("A native engine was freed; the duration is what freeing it took")
final class EngineClosed extends Event {
    @Label("Engine")
    String engine;

    @Label("Handle")
    long handle;

    @Label("Leaked")
    @Description("Nobody closed it: the garbage collector freed it")
    boolean leaked;
}
