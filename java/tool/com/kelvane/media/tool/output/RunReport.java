package com.kelvane.media.tool.output;

import com.fasterxml.jackson.core.JsonGenerator;
import com.kelvane.media.Rendition;
import com.kelvane.media.Transcoder.RenditionStatistics;
import com.kelvane.media.Transcoder.Statistics;
import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.packager.MediaPlaylist;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.shell.JsonLines;
import java.io.IOException;
import java.math.BigDecimal;
import java.math.RoundingMode;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Locale;
import java.util.function.IntToDoubleFunction;

/**
 * Every figure of a run.
 *
 * @param audio the sound that was carried, or null
 * @param start seconds into the source
 * @param seconds that the pictures take
 * @param shown number of pictures within what was asked for
 * @param statistics the transcoder's
 * @param figures of each rendition's pictures
 * @param lost pictures that encoders failed at
 * @param comparison null when there was none
 * @param playlists of the renditions and then of the sound; empty without HLS
 * @param transcodingSeconds by the clock
 * @param cpuSeconds of the transcoding threads
 * @param accessUnits that were read
 * @param damage what is wrong with the source, or null
 * @param files names in the directory
 */
public record RunReport(VideoTrack track, AudioTrack audio, double start, double seconds, int shown, Statistics statistics,
                        List<RenditionOutput> outputs, List<PictureFigures> figures, LostPictures lost,
                        Comparison comparison, List<MediaPlaylist> playlists, double transcodingSeconds, double cpuSeconds, int accessUnits,
                        String damage, List<String> files) {
    public static final String FILE = "result.json";

    /** Writes the report into a file. */
    public void write(Path file) throws IOException {
        try (JsonGenerator json = JsonLines.generator(Files.newOutputStream(file))) {
            json.writeStartObject();
            writeFields(json);
            json.writeEndObject();
            json.writeRaw('\n');
        }
    }

    /** Writes the report's fields into an object that was begun. */
    public void writeFields(JsonGenerator json) throws IOException {
        json.writeObjectFieldStart("source");
        json.writeStringField("path", track.path().toString());
        json.writeNumberField("width", track.width());
        json.writeNumberField("height", track.height());
        number(json, "frameRate", track.frameRate(), 3);
        number(json, "seconds", track.seconds(), 3);
        json.writeNumberField("accessUnits", accessUnits);
        json.writeNumberField("withoutPicture", Math.max(0, accessUnits - statistics.pictures()));
        if (comparison != null) {
            json.writeNumberField("concealedPictures", comparison.damagedPictures());
        }
        if (damage != null) {
            json.writeStringField("damage", damage);
        }
        json.writeEndObject();
        number(json, "start", start, 3);
        number(json, "seconds", seconds, 3);
        json.writeNumberField("pictures", shown);
        json.writeNumberField("decodedPictures", statistics.pictures());
        number(json, "transcodingSeconds", transcodingSeconds, 3);
        number(json, "cpuSeconds", cpuSeconds, 3);
        number(json, "decodeMilliseconds", statistics.decodeTime().toNanos() / 1e6, 3);
        json.writeArrayFieldStart("renditions");
        for (int i = 0; i < outputs.size(); i++) {
            writeRendition(json, i);
        }
        json.writeEndArray();
        if (audio == null) {
            json.writeNullField("sound");
        } else {
            json.writeObjectFieldStart("sound");
            json.writeNumberField("stream", audio.index());
            json.writeStringField("sourceCodec", audio.codec());
            json.writeBooleanField("copied", audio.codec().equals("aac"));
            if (playlists.size() > outputs.size()) {
                writePlaylist(json, Names.SOUND, playlists.get(outputs.size()));
            }
            json.writeEndObject();
        }
        json.writeArrayFieldStart("files");
        for (String file : files) {
            json.writeString(file);
        }
        json.writeEndArray();
    }

    private void writeRendition(JsonGenerator json, int index) throws IOException {
        RenditionStatistics done = statistics.renditions().get(index);
        Rendition settings = done.rendition();
        PictureFigures pictures = figures.get(index);
        json.writeStartObject();
        json.writeNumberField("width", settings.width());
        json.writeNumberField("height", settings.height());
        number(json, "frameRate", outputs.get(index).frameRate(), 3);
        json.writeNumberField("targetBitrate", settings.bitrate());
        json.writeStringField("rateControl", settings.rateControl().name().toLowerCase(Locale.ROOT));
        json.writeStringField("entropyCoding", settings.entropyCoding().name().toLowerCase(Locale.ROOT));
        json.writeNumberField("keyInterval", settings.keyInterval());
        json.writeNumberField("smallestQuantiser", settings.smallestQuantiser());
        json.writeNumberField("largestQuantiser", settings.largestQuantiser());
        json.writeNumberField("pictures", done.pictures());
        json.writeNumberField("skipped", done.skipped());
        json.writeNumberField("failed", done.failed());
        if (lost.reason(index) != null) {
            json.writeStringField("failure", lost.reason(index));
        }
        json.writeNumberField("bytes", done.bytes());
        number(json, "bitrate", done.bytes() * 8 / seconds, 0);
        number(json, "encodeMilliseconds", done.encodeTime().toNanos() / 1e6, 3);
        if (comparison != null) {
            number(json, "psnrY", comparison.psnr(index), 2);
        }
        if (!playlists.isEmpty()) {
            writePlaylist(json, outputs.get(index).size(), playlists.get(index));
        }
        array(json, "timesMilliseconds", pictures.count(), pictures::time, 0);
        array(json, "bits", pictures.count(), pictures::bits, 0);
        json.writeArrayFieldStart("keyPictures");
        for (int i = 0; i < pictures.count(); i++) {
            if (pictures.isKey(i)) {
                json.writeNumber(i);
            }
        }
        json.writeEndArray();
        if (pictures.hasPsnr()) {
            array(json, "psnrYOfPictures", pictures.count(), pictures::psnr, 2);
        }
        json.writeEndObject();
    }

    private static void writePlaylist(JsonGenerator json, String folder, MediaPlaylist playlist) throws IOException {
        json.writeObjectFieldStart("hls");
        json.writeStringField("folder", folder);
        json.writeNumberField("bandwidth", playlist.peakBandwidth());
        json.writeNumberField("averageBandwidth", playlist.averageBandwidth());
        array(json, "segmentSeconds", playlist.entries().size(), i -> playlist.entries().get(i).seconds(), 6);
        array(json, "segmentBytes", playlist.entries().size(), i -> playlist.entries().get(i).bytes(), 0);
        json.writeEndObject();
    }

    private static void array(JsonGenerator json, String name, int count, IntToDoubleFunction values, int digits)
            throws IOException {
        json.writeArrayFieldStart(name);
        for (int i = 0; i < count; i++) {
            value(json, values.applyAsDouble(i), digits);
        }
        json.writeEndArray();
    }

    private static void number(JsonGenerator json, String name, double number, int digits) throws IOException {
        json.writeFieldName(name);
        value(json, number, digits);
    }

    /** JSON has no infinity, which stands for pictures without any difference. */
    private static void value(JsonGenerator json, double number, int digits) throws IOException {
        if (Double.isInfinite(number)) {
            json.writeString("identical");
        } else if (Double.isNaN(number)) {
            json.writeNull();
        } else {
            json.writeNumber(BigDecimal.valueOf(number).setScale(digits, RoundingMode.HALF_UP));
        }
    }
}
