package com.kelvane.media;

import com.kelvane.media.transform.codec.MIRVProcessor;
import java.util.Comparator;
import java.util.function.Consumer;
import java.util.stream.Stream;

/** A decoded picture on its way through the encoders. It is used for one after the other. */
final class PictureAtWork {
    private static final int AT_HAND = -1;

    private final int ownPlace;
    private int place = AT_HAND;
    private RenditionOutput[] outputs;
    private Encoding[] encodings;
    private Encoding[] largestFirst;
    private PictureTranscoded event;
    private long time;
    private long milliseconds;
    private long written;

    int left; // to be encoded; ParallelEncoding's

    /** @param ownPlace where the native transcoder may keep the picture */
    PictureAtWork(int ownPlace) {
        this.ownPlace = ownPlace;
    }

    /** @param carried the picture's time, as the native transcoder has it */
    void begin(RenditionOutput[] present, PictureTranscoded decoding, Times times, long carried) {
        if (outputs != present) {
            encodings = Stream.of(present).map(output -> new Encoding(this, output)).toArray(Encoding[]::new);
            largestFirst = Stream.of(encodings).sorted(Comparator.comparingLong(encoding -> -encoding.output.area()))
                    .toArray(Encoding[]::new);
            outputs = present;
        }
        event = decoding;
        time = times.of(carried);
        milliseconds = times.milliseconds(time);
        written = times.writtenAt(carried);
        place = AT_HAND;
        for (Encoding encoding : encodings) {
            encoding.begin();
        }
    }

    Encoding[] encodings() {
        return encodings;
    }

    Encoding[] largestFirst() {
        return largestFirst;
    }

    long time() {
        return time;
    }

    /** Takes over, for each rendition that gets the picture, what was asked for up to now. */
    void steer() {
        for (Encoding encoding : encodings) {
            if (encoding.isWanted()) {
                encoding.output.steer(encoding);
            }
        }
    }

    /** Copies the picture, so that decoding can go on; without memory for that it stays where it is. */
    void keep(long transcoder) {
        place = MIRVProcessor.keep(ownPlace, transcoder) == 1 ? ownPlace : AT_HAND;
    }

    boolean isKept() {
        return place != AT_HAND;
    }

    /** Encodes it into one rendition, if that gets it, and throws nothing. */
    void encode(Encoding encoding, long transcoder) {
        try {
            if (encoding.isWanted()) {
                encoding.output.encode(encoding, place, time, milliseconds, transcoder);
            }
        } catch (Throwable noJavaMemory) {
            encoding.thrown = noJavaMemory;
        }
    }

    /** Tells what became of it in one rendition. */
    void deliver(Encoding encoding, long transcoder, Consumer<? super EncodedPicture> receiver, Failures failures) {
        failures.of(() -> encoding.output.tellFailure(encoding, transcoder, milliseconds));
        failures.of(() -> encoding.output.deliver(encoding, time, written, receiver));
        if (encoding.thrown != null) {
            failures.add(encoding.thrown);
        }
    }

    /** Everybody knows what became of it. */
    void end(long transcoder) {
        if (event.shouldCommit()) {
            event.handle = transcoder;
            event.time = milliseconds;
            for (Encoding encoding : encodings) {
                event.encodeTime += encoding.nanoseconds;
                event.bytes += encoding.size;
            }
            event.commit();
        }
    }
}
