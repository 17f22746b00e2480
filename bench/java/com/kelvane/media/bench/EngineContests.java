package com.kelvane.media.bench;

import com.kelvane.media.ProcessingModule;
import java.nio.file.Path;
import java.util.Map;

/** The decoder and the pipeline beside the floor. Arguments: FOLDER LAUNCH SOURCE */
public final class EngineContests {
    private static final int LAPS = 3;

    private EngineContests() {
    }

    public static void main(String[] arguments) throws Exception {
        Heat.videoEngines();
        Packets source = Packets.read(Path.of(arguments[0]).resolve(arguments[2] + ".packets"));
        measure("decoder", "decoding, to floor", source, "decode", "", Engines.decode(source.list()));
        String pipeline = "30 " + Engines.PIPELINE_BITRATE;
        measure("pipeline", "pipeline, to floor", source, "pipeline", pipeline, Engines.pipeline(source.list(), 30, null));
        ProcessingModule idle = ProcessingModule.load(Path.of(System.getProperty("bench.module")));
        measure("pipeline, idle module", "pipeline, to floor", source, "pipeline", pipeline, Engines.pipeline(source.list(), 30, idle));
    }

    private static void measure(String row, String ratio, Packets source, String kind, String floorArguments, Contest.Pass api)
            throws Exception {
        try (Floor floor = new Floor(Map.of()).bound(); Floor again = new Floor(Map.of()).bound()) {
            Contest contest = new Contest(row, source.list().size()).way("floor", floor.pass(kind, source.file(), floorArguments))
                    .way("floor again", again.pass(kind, source.file(), floorArguments)).way("API", api).run(LAPS)
                    .mean("floor", "floor again", "both floors");
            Child.report(row, "floor, ms", contest.result("floor").median() / 1e6 / source.list().size());
            Child.report(row, "API, ms", contest.result("API").median() / 1e6 / source.list().size());
            Child.report(row, "floor again to floor", contest.ratio("floor again", "floor").median());
            Child.report(row, ratio, contest.ratio("API", "both floors").median());
        }
    }
}
