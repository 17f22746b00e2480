package com.kelvane.media.bench;

import java.nio.file.Path;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/** The engines of sound, both ways, beside the floor. Arguments: FOLDER LAUNCH */
public final class SoundContests {
    private static final int LAPS = 3;

    private SoundContests() {
    }

    public static void main(String[] arguments) throws Exception {
        List<byte[]> blocks = Sound.pcm(1024);
        List<byte[]> frames = Sound.pcm(960);
        Map<String, List<byte[]>> inputs = new LinkedHashMap<>();
        inputs.put("aac-decoder", Sound.aac(blocks));
        inputs.put("aac-encoder", blocks);
        inputs.put("mp3-decoder", Sound.mp3(Path.of(System.getProperty("bench.mp3"))));
        inputs.put("opus-decoder", Sound.opus(frames));
        inputs.put("opus-encoder", frames);
        try (Floor floor = new Floor(Map.of()).bound(); Floor again = new Floor(Map.of()).bound()) {
            for (Map.Entry<String, List<byte[]>> input : inputs.entrySet()) {
                String kind = input.getKey();
                List<byte[]> packets = input.getValue();
                Path file = Packets.write(Path.of(arguments[0]).resolve(kind + ".packets"), packets).file();
                Contest.Pass[] ours = switch (kind) {
                    case "aac-decoder" -> new Contest.Pass[] {Engines.aacDecoderNatives(packets), Engines.aacDecoder(packets)};
                    case "aac-encoder" -> new Contest.Pass[] {Engines.aacEncoderNatives(packets), Engines.aacEncoder(packets)};
                    case "mp3-decoder" -> new Contest.Pass[] {Engines.mp3DecoderNatives(packets), Engines.mp3Decoder(packets)};
                    case "opus-decoder" -> new Contest.Pass[] {Engines.opusDecoderNatives(packets), Engines.opusDecoder(packets)};
                    default -> new Contest.Pass[] {Engines.opusEncoderNatives(packets), Engines.opusEncoder(packets)};
                };
                Contest contest = new Contest(kind, packets.size()).way("floor", floor.pass(kind, file, ""))
                        .way("floor again", again.pass(kind, file, "")).way("natives", ours[0]).way("API", ours[1])
                        .run(LAPS).mean("floor", "floor again", "both floors");
                for (String way : List.of("floor", "natives", "API")) {
                    Child.report(kind, way + ", times real time", Sound.SECONDS * 1e9 / contest.result(way).median());
                }
                Child.report(kind, "floor again to floor", contest.ratio("floor again", "floor").median());
                Child.report(kind, "natives to floor", contest.ratio("natives", "both floors").median());
                Child.report(kind, "API to floor", contest.ratio("API", "both floors").median());
            }
        }
    }
}
