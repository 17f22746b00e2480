package com.kelvane.media.tool.shell;

import com.kelvane.media.NativeLog;
import java.io.IOException;
import java.lang.System.Logger.Level;
import java.nio.file.Path;

/** The library's own lines: in the file that KELVANE_DIAGNOSTICS names, otherwise nowhere. */
public final class Diagnostics {
    private static final String FILE = System.getenv().getOrDefault("KELVANE_DIAGNOSTICS", "");

    private static boolean chosen;

    private Diagnostics() {
    }

    public static void begin() throws IOException {
        if (!FILE.isEmpty()) {
            NativeLog.toFile(Caller.path(Path.of(FILE)));
            chosen = true;
        }
    }

    /** Unless there is a file, standard error has what modules were refused for and what they threw. */
    public static void tellOfModules() {
        if (!chosen) {
            NativeLog.to(line -> {
                if (line.engine().equals("Pipeline") && line.level() == Level.ERROR) {
                    Caller.ERRORS.println(line.text());
                }
            });
            chosen = true;
        }
    }

    /** The last lines are handed on before. */
    public static void end() {
        if (chosen) {
            NativeLog.discard();
        }
    }
}
