package com.kelvane.media.bench;

import java.nio.file.Path;
import java.util.List;
import java.util.Map;

/** Ladders through the natives and the API, beside the floor and FFmpeg's own program. Arguments: FOLDER LAUNCH SOURCE... */
public final class LadderContests {
    private static final int LAPS = 3;

    private LadderContests() {
    }

    public static void main(String[] arguments) throws Exception {
        Heat.videoEngines();
        Path folder = Path.of(arguments[0]);
        for (String source : List.of(arguments).subList(2, arguments.length)) {
            Packets packets = Packets.read(folder.resolve(source + ".packets"));
            int height = Integer.parseInt(source.replaceAll("p.*", ""));
            int frameRate = Integer.parseInt(source.replaceAll(".*p", ""));
            for (int rungs : new int[] {1, 3, 5}) {
                measure(folder, source, packets, Ladder.of(height, frameRate, rungs), arguments[1].equals("0"));
            }
        }
    }

    private static void measure(Path folder, String source, Packets packets, Ladder ladder, boolean first)
            throws Exception {
        int pictures = packets.list().size();
        try (Floor floor = new Floor(Map.of()).bound(); Floor again = new Floor(Map.of()).bound();
                Floor starter = new Floor(Map.of()).bound()) {
            FFmpegProgram program = new FFmpegProgram(folder, starter, source, ladder);
            if (first) {
                program.check(LAPS, pictures);
            }
            Contest contest = new Contest(source, pictures)
                    .way("floor", floor.pass("ladder", packets.file(), ladder.forFloor()))
                    .way("floor again", again.pass("ladder", packets.file(), ladder.forFloor()))
                    .way("natives", ladder.natives(packets.list())).way("API", ladder.api(packets.list(), null))
                    .other("FFmpeg", program.pass(pictures)).run(LAPS).mean("floor", "floor again", "both floors");
            int rungs = ladder.rungs().size();
            String row = source + ", " + rungs + (rungs == 1 ? " rung" : " rungs");
            for (String way : List.of("floor", "natives", "API", "FFmpeg")) {
                Child.report(row, way + ", ms", contest.result(way).median() / 1e6 / pictures);
            }
            Child.report(row, "floor again to floor", contest.ratio("floor again", "floor").median());
            Child.report(row, "natives to floor", contest.ratio("natives", "both floors").median());
            Child.report(row, "API to floor", contest.ratio("API", "both floors").median());
            Child.report(row, "API to FFmpeg", contest.ratioOfAll("API", "FFmpeg"));
        }
    }
}
