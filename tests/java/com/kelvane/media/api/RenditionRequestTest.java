package com.kelvane.media.api;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.kelvane.media.Rendition;
import com.kelvane.media.tool.input.VideoTrack;
import com.kelvane.media.tool.output.RenditionRequest;
import java.util.stream.Collectors;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import picocli.CommandLine.TypeConversionException;

/** Renditions as the command line takes them, and those that it makes up. */
final class RenditionRequestTest {
    private static RenditionRequest read(String text) {
        return new RenditionRequest.Converter().convert(text);
    }

    private static String fields(Rendition rendition) {
        return rendition.width() + "x" + rendition.height() + "@" + rendition.bitrate() + " " + rendition.frameRate() + " "
                + rendition.keyInterval() + " " + rendition.rateControl() + " " + rendition.entropyCoding() + " "
                + rendition.smallestQuantiser() + "-" + rendition.largestQuantiser();
    }

    /** What is asked for, and what it becomes for a source of so many pictures per second. */
    @ParameterizedTest
    @CsvSource(delimiter = '|', textBlock = """
            640x360@800k                                         | 25     | 25    | 640x360@800000 25 50 BITRATE CAVLC 0-0
            640x360@800k                                         | 119.88 | 59.94 | 640x360@800000 60 120 BITRATE CAVLC 0-0
            640x360@800k                                         | 60.4   | 60.4  | 640x360@800000 60 120 BITRATE CAVLC 0-0
            640x360@800k                                         | 60.5   | 30.25 | 640x360@800000 30 60 BITRATE CAVLC 0-0
            16x18@1000                                           | 0.2    | 0.2   | 16x18@1000 1 2 BITRATE CAVLC 0-0
            64x48@288M,fps=60                                    | 240    | 60    | 64x48@288000000 60 120 BITRATE CAVLC 0-0
            64x48@1.5M,fps=50,key=33                             | 30     | 30    | 64x48@1500000 30 33 BITRATE CAVLC 0-0
            64x48@2.5k,cabac,qp=12-34,mode=quality,key=480,fps=7 | 30     | 7     | 64x48@2500 7 480 QUALITY CABAC 12-34
            64x48@2k,mode=quality,mode=bitrate                   | 30     | 30    | 64x48@2000 30 60 BITRATE CAVLC 0-0
            """)
    void readsEachOption(String text, double sourceRate, double rate, String completed) {
        assertEquals(rate, read(text).pictureRate(sourceRate), 1e-9);
        assertEquals(completed, fields(read(text).completed(sourceRate)));
    }

    @ParameterizedTest
    @CsvSource(delimiter = '|', textBlock = """
            64x48               | expected WIDTHxHEIGHT@BITRATE
            64x48@999           | must be from 1k to 288M
            64x48@288.001M      | must be from 1k to 288M
            64x48@1G            | is a number of bits per second
            64x48@1k,fps=0      | fps takes whole numbers from 1
            64x48@1k,fps        | fps takes whole numbers from 1
            64x48@1k,key=1.5    | key takes whole numbers from 1
            64x48@1k,qp=20      | qp takes two quantisers
            64x48@1k,qp=0-20    | qp takes whole numbers from 1
            64x48@1k,mode=best  | mode is quality or bitrate
            64x48@1k,cavlc      | unknown option cavlc
            64x47@1k            | height is 47
            """)
    void refuses(String text, String reason) {
        String message = assertThrows(TypeConversionException.class, () -> read(text)).getMessage();
        assertTrue(message.startsWith(text + ": ") && message.contains(reason), message);
    }

    @ParameterizedTest
    @CsvSource(delimiter = '|', textBlock = """
            1920 | 1080 | 1920x1080@4500000 1280x720@2500000 854x480@1200000
            1080 | 1920 | 1080x1920@4500000 720x1280@2500000 480x854@1200000
            1280 | 719  | 854x480@1200000 640x360@800000 428x240@400000
            640  | 360  | 640x360@800000 426x240@400000 256x144@150000
            300  | 300  | 240x240@400000 144x144@150000
            176  | 144  | 176x144@150000
            175  | 143  | 174x142@100000
            """)
    void makesALadderOfTheUsualSizes(int width, int height, String sizes) {
        VideoTrack source = new VideoTrack(null, 0, width, height, "yuv420p", 25, 0, 1, 0, null);
        assertEquals(sizes, RenditionRequest.ladder(source).stream().map(RenditionRequest::settings)
                .map(made -> made.width() + "x" + made.height() + "@" + made.bitrate()).collect(Collectors.joining(" ")));
    }
}
