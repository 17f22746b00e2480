package com.kelvane.media.tool.shell;

import com.fasterxml.jackson.core.JsonFactory;
import com.fasterxml.jackson.core.JsonGenerator;
import com.fasterxml.jackson.core.StreamWriteFeature;
import java.io.IOException;
import java.io.OutputStream;
import java.io.UncheckedIOException;

/** What a run says for programs to read: one JSON object a line, in the place of all lines for people. */
public final class JsonLines {
    private static final JsonFactory FACTORY = JsonFactory.builder().enable(StreamWriteFeature.WRITE_BIGDECIMAL_AS_PLAIN)
            .build();
    private static volatile boolean on;

    private JsonLines() {
    }

    /** Has the rest of the process print them. */
    public static void turnOn() {
        on = true;
    }

    public static boolean isOn() {
        return on;
    }

    /** A writer that closes its stream with it. */
    public static JsonGenerator generator(OutputStream stream) throws IOException {
        return FACTORY.createGenerator(stream);
    }

    /** Writes the fields of an object. */
    @FunctionalInterface
    public interface Fields {
        void write(JsonGenerator json) throws IOException;
    }

    /**
     * Prints one object.
     *
     * @param kind goes into its field "event"
     */
    public static synchronized void print(String kind, Fields fields) {
        try {
            JsonGenerator json = FACTORY.createGenerator(Caller.OUTPUT).disable(JsonGenerator.Feature.AUTO_CLOSE_TARGET);
            json.writeStartObject();
            json.writeStringField("event", kind);
            fields.write(json);
            json.writeEndObject();
            json.writeRaw('\n');
            json.close();
        } catch (IOException unwritable) {
            throw new UncheckedIOException(unwritable);
        }
    }
}
