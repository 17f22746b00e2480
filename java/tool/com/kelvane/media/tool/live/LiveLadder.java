package com.kelvane.media.tool.live;

import com.kelvane.media.tool.input.AacSource;
import com.kelvane.media.tool.input.LiveSound;
import com.kelvane.media.tool.input.PictureMeaning;
import com.kelvane.media.tool.output.RenditionOutput;
import java.io.IOException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/** Hands pictures and sound to those renditions that are made, segment by segment. */
final class LiveLadder {
    private final List<RenditionOutput> outputs;
    private final Publication publication;
    private final RenditionStream[] streams; // null where none is made
    private final List<RenditionStream> ending = new ArrayList<>();
    private PictureMeaning meaning;
    private LiveSound sound;
    private boolean soundChanged;
    private int next;
    private int made;

    LiveLadder(List<RenditionOutput> outputs, Publication publication) {
        this.outputs = outputs;
        this.publication = publication;
        streams = new RenditionStream[outputs.size()];
    }

    /** What the source is from now on; only the first one decides whether there is sound. */
    void source(PictureMeaning shown, LiveSound heard) {
        if (meaning == null) {
            meaning = shown;
            sound = heard;
            publication.source(meaning, sound == null ? new byte[0] : sound.configuration());
        } else if (sound != null && heard != null) {
            soundChanged |= !Arrays.equals(sound.configuration(), heard.configuration());
            sound = heard;
        }
    }

    boolean hasSound() {
        return sound != null;
    }

    /**
     * Begins a segment with the next picture.
     *
     * @param time of the picture in milliseconds
     * @param arrival when it came
     * @param wanted how many renditions have this segment, counted from the smallest
     */
    void cut(long time, long arrival, int wanted) throws IOException {
        int number = next++;
        boolean begins = number > 0 && (soundChanged || wanted != made);
        publication.begin(number, arrival, begins, wanted);
        for (int i = 0; i < streams.length; i++) {
            boolean isWanted = i >= streams.length - wanted;
            if (streams[i] != null && (!isWanted || soundChanged || streams[i].isBroken())) {
                ending.add(streams[i]);
                streams[i].finish(time);
                streams[i] = null;
            }
            if (isWanted && streams[i] != null) {
                streams[i].cut(number);
            } else if (isWanted) {
                streams[i] = new RenditionStream(outputs.get(i), meaning, sound, number, publication.receiver(i));
            }
        }
        ending.removeIf(RenditionStream::isOver);
        soundChanged = false;
        made = wanted;
    }

    void writePicture(int rendition, byte[] accessUnit, long time, boolean key) {
        if (streams[rendition] != null) {
            streams[rendition].writePicture(accessUnit, time, key);
        }
    }

    void writeSound(AacSource.Unit unit) {
        for (RenditionStream stream : streams) {
            if (stream != null) {
                stream.writeSound(unit);
            }
        }
    }

    /** Ends the last segment and makes the lists complete. Returns whether there is anything to play. */
    boolean finish(long end) throws IOException {
        for (RenditionStream stream : streams) {
            if (stream != null) {
                ending.add(stream);
                stream.finish(end);
            }
        }
        ending.forEach(RenditionStream::join);
        return publication.finish();
    }
}
