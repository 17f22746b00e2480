package com.kelvane.media.tool;

import com.kelvane.media.MediaException;
import com.kelvane.media.tool.output.LostPictures;
import com.kelvane.media.tool.output.Workspace;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Diagnostics;
import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
import java.io.PrintWriter;
import java.io.UncheckedIOException;
import picocli.CommandLine.Command;
import picocli.CommandLine.IVersionProvider;
import picocli.CommandLine;

/**
 * The command-line tool. Exit codes: 0 done, 1 failed, 2 wrong usage, 3 done but for pictures that an encoder failed at; every
 * error is one line on standard error.
 */
@Command(name = "kelvane", description = "H.264 and sound transcoding and processing with the Kelvane media library.",
        mixinStandardHelpOptions = true, versionProvider = Kelvane.Version.class,
        subcommands = {TranscodeCommand.class, LiveCommand.class, ProcessCommand.class, AudioCommand.class})
public final class Kelvane {
    private Kelvane() {
    }

    public static void main(String[] arguments) {
        CommandLine tool = new CommandLine(new Kelvane())
                .setOut(new PrintWriter(Caller.OUTPUT, true))
                .setErr(new PrintWriter(Caller.ERRORS, true))
                .setParameterExceptionHandler((wrong, given) -> {
                    String name = wrong.getCommandLine().getCommandSpec().qualifiedName();
                    return report(name, wrong.getMessage() + " (" + name + " --help tells more)", CommandLine.ExitCode.USAGE);
                })
                .setExecutionExceptionHandler((failure, command, parsed) ->
                        report(command.getCommandSpec().qualifiedName(), explain(failure), CommandLine.ExitCode.SOFTWARE));
        int exitCode;
        try {
            Diagnostics.begin();
            exitCode = tool.execute(arguments);
        } catch (IOException | MediaException noDiagnostics) {
            exitCode = report("kelvane", explain(noDiagnostics), CommandLine.ExitCode.SOFTWARE);
        } catch (LinkageError | OutOfMemoryError beyondPicocli) {
            exitCode = report("kelvane", beyondPicocli.getMessage(), CommandLine.ExitCode.SOFTWARE);
        }
        Diagnostics.end();
        if ((exitCode == 0 || exitCode == LostPictures.EXIT_CODE) && Caller.OUTPUT.checkError()) {
            exitCode = report("kelvane", "standard output cannot be written to", CommandLine.ExitCode.SOFTWARE);
        }
        System.exit(exitCode);
    }

    private static int report(String command, String message, int exitCode) {
        // An interrupted run fails in whatever it was doing, which nobody wants to read.
        if (!Workspace.interrupted()) {
            Caller.ERRORS.println(command + ": " + message.strip().replaceAll("\\s*\\R\\s*", " "));
        }
        return exitCode;
    }

    private static String explain(Throwable failure) {
        if (failure instanceof Failure || failure instanceof MediaException) {
            return failure.getMessage();
        }
        if (failure instanceof IOException || failure instanceof UncheckedIOException) {
            return Failure.reason((IOException) (failure instanceof IOException ? failure : failure.getCause()));
        }
        StackTraceElement[] place = failure.getStackTrace();
        return "internal error: " + failure + (place.length > 0 ? " at " + place[0] : "");
    }

    static final class Version implements IVersionProvider {
        @Override
        public String[] getVersion() {
            String version = Kelvane.class.getPackage().getImplementationVersion();
            return new String[] {"kelvane " + (version == null ? "(development build)" : version)};
        }
    }
}
