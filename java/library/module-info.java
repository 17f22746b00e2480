/**
 * Audio and video codecs in native code for Java media servers: {@link com.kelvane.media} is the API that applications
 * use, {@link com.kelvane.media.transform.codec} the native methods under it.
 */
module com.kelvane.media {
    requires jdk.jfr;
    requires static java.management;

    exports com.kelvane.media;
    exports com.kelvane.media.transform.codec;
}
