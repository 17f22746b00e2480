import com.kelvane.media.*;
import java.io.IOException;
import java.nio.file.*;
import java.util.*;

/**
 * An HLS ladder with sound of a raw H.264 stream of 25 pictures a second and of 16-bit samples (stereo, 48 kHz), each rendition
 * and the sound in a folder of its own.
 *
 * <p>Arguments: STREAM.h264 SOUND.pcm; the ladder goes into the working directory.
 */
public class HlsLadder {
    static final Map<String, byte[]> FILES = new TreeMap<>();
    final StringBuilder list = new StringBuilder("#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:2\n#EXT-X-MAP:URI=\"init.mp4\"\n");
    final String name;
    final ContainerWriter writer;
    long time = -AacEncoder.LEAD_IN; // of the next unit of sound

    HlsLadder(String name, MediaTrack track) {
        this.name = name;
        writer = ContainerWriter.builder(ContainerWriter.Format.FRAGMENTED_MP4).track(track).open();
    }

    void cut(long next) {
        writer.cut(next).ifPresent(fragment -> {
            FILES.put(name + "/" + fragment.decodeTime() + ".m4s", fragment.bytes());
            list.append(String.format(Locale.ROOT, "#EXTINF:%.5f,%n%d.m4s%n",
                    (double) fragment.duration() / writer.track(0).timescale(), fragment.decodeTime()));
        });
    }

    void addPicture(EncodedPicture picture) {
        if (picture.time() % 2000 == 0) {
            cut(picture.time() * 90);
        }
        writer.write(0, picture);
    }

    void addSound(byte[] unit) {
        if (time / 96_000 > (time - 1024) / 96_000) {
            cut(time);
        }
        writer.write(0, unit, time);
        time += 1024;
    }

    void finish(long end) {
        cut(end);
        FILES.put(name + "/init.mp4", writer.initSegment());
        FILES.put(name + "/index.m3u8", list.append("#EXT-X-ENDLIST\n").toString().getBytes());
    }

    public static void main(String[] arguments) throws IOException {
        List<byte[]> source = AccessUnit.split(Files.readAllBytes(Path.of(arguments[0])));
        byte[] pcm = Files.readAllBytes(Path.of(arguments[1]));
        List<Rendition> rungs = List.of(Rendition.of(320, 180).bitrate(500_000), Rendition.of(160, 90).bitrate(150_000));
        List<HlsLadder> pictures = rungs.stream().map(rung -> new HlsLadder(rung.width() + "x" + rung.height(),
                MediaTrack.h264(rung.width(), rung.height()))).toList();
        HlsLadder sound = new HlsLadder("sound", MediaTrack.aac(48_000, 2));
        try (Transcoder transcoder = Transcoder.builder().renditions(rungs).plan(picture -> {
            if (picture.time() % 2000 == 0) {
                picture.keyAll();
            }
        }).open();
                AacEncoder encoder = AacEncoder.builder().open()) {
            for (int i = 0; i < source.size(); i++) {
                transcoder.write(source.get(i), i * 40, picture -> pictures.get(picture.index()).addPicture(picture));
            }
            for (int at = 0; at < pcm.length; at += encoder.blockSize()) {
                encoder.encode(Arrays.copyOfRange(pcm, at, at + encoder.blockSize())).ifPresent(sound::addSound);
            }
            encoder.drain(sound::addSound);
        }
        sound.finish(sound.time);
        String master = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"sound\",NAME=\"Sound\",DEFAULT=YES,"
                + "URI=\"sound/index.m3u8\"\n";
        for (HlsLadder rung : pictures) {
            rung.finish(source.size() * 40L * 90);
            master += String.format(Locale.ROOT, "#EXT-X-STREAM-INF:BANDWIDTH=900000,RESOLUTION=%s,CODECS=\"%s,%s\",AUDIO=\"sound\"%n"
                    + "%1$s/index.m3u8%n", rung.name, rung.writer.codecs(), sound.writer.codecs());
        }
        FILES.put("master.m3u8", master.getBytes());
        for (Map.Entry<String, byte[]> file : FILES.entrySet()) {
            Path path = Path.of(file.getKey());
            Files.createDirectories(path.toAbsolutePath().getParent());
            Files.write(path, file.getValue());
        }
    }
}
