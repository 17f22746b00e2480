package com.kelvane.media.spark;

import com.kelvane.media.MediaException;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.Failure;
import java.io.IOException;
import java.io.PrintWriter;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import org.apache.hadoop.fs.Path;
import org.apache.spark.SparkConf;
import org.apache.spark.SparkException;
import org.apache.spark.api.java.JavaSparkContext;
import picocli.CommandLine;
import picocli.CommandLine.Command;
import picocli.CommandLine.IVersionProvider;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Parameters;
import picocli.CommandLine.Spec;

/**
 * A Spark application that transcodes films into HLS ladders, cut into chunks for as many executors as there are. Exit codes:
 * 0 done, 1 something failed, 2 wrong usage, 3 done as far as damaged inputs and encoders that fail at pictures allow; every error is one line on standard error.
 */
@Command(name = "kelvane transcode --spark MASTER", mixinStandardHelpOptions = true,
        versionProvider = TranscodeJob.Version.class, sortOptions = false, usageHelpAutoWidth = true,
        description = {"Transcodes films into HLS ladders on Apache Spark.", ""},
        footer = {"", "DIR receives a folder for each input, named after it: master.m3u8 and a folder of segments for each"
                + " rendition and the sound. MASTER is Spark's: local[4], spark://host:7077, yarn, k8s://...", "",
                "Example:", "  kelvane transcode --spark 'local[4]' hdfs://nn/films -o hdfs://nn/ladders -r 1280x720@2500k"})
public final class TranscodeJob implements Callable<Integer> {
    static final int FAILED = CommandLine.ExitCode.SOFTWARE;
    static final int DAMAGED = 3;
    private static final int LONGEST_SEGMENT = 60; // seconds
    private static final int LONGEST_CHUNK = 3600; // seconds

    @Spec
    private CommandSpec command;

    @Parameters(paramLabel = "INPUT", arity = "0..*", description = "Media file with an H.264 track, a folder of them or a"
            + " pattern, in any file system that Hadoop knows: file:, hdfs:, s3a: ...")
    private List<String> inputs = new ArrayList<>();

    @Option(names = "--list", paramLabel = "FILE", description = "A file with an input a line.")
    private String list;

    @Option(names = {"-o", "--output"}, paramLabel = "DIR", description = "Folder for the results, in any such file system"
            + " that all executors reach (default: ${DEFAULT-VALUE}).")
    private String output = "transcoded";

    @Option(names = {"-r", "--rendition"}, paramLabel = "WxH@BITRATE[,...]", description = "A rendition, as kelvane transcode"
            + " takes it; may be given several times (default: the three largest usual sizes that fit into the source).")
    private ArrayList<String> renditions = new ArrayList<>();

    @Option(names = "--segment", paramLabel = "SECONDS", description = "Length of HLS segments, 1-60 whole seconds (default:"
            + " ${DEFAULT-VALUE}).")
    private int segment = 4;

    @Option(names = "--chunk", paramLabel = "SECONDS", description = "About how much one task transcodes, 1-3600 whole seconds"
            + " (default: ${DEFAULT-VALUE}).")
    private int chunk = 60;

    @Option(names = "--audio", paramLabel = "N|none", description = "Sound track to carry, from 1 (default: the file's own"
            + " choice). AAC is copied; MP3, Opus and PCM become AAC.")
    private String audio;

    @Option(names = "--resume", description = "Keep what an earlier job with the same settings made, skip what is complete.")
    private boolean resume;

    @Override
    public Integer call() throws IOException {
        check(!inputs.isEmpty() || list != null, "there is no INPUT");
        check(segment >= 1 && segment <= LONGEST_SEGMENT, "--segment takes whole seconds from 1 to " + LONGEST_SEGMENT);
        check(chunk >= 1 && chunk <= LONGEST_CHUNK, "--chunk takes whole seconds from 1 to " + LONGEST_CHUNK);
        check(audio == null || audio.matches("none|[1-9]\\d{0,3}"), "--audio takes the number of a sound track, or none");
        try {
            renditions.forEach(new RenditionRequest.Converter()::convert);
        } catch (CommandLine.TypeConversionException wrong) {
            check(false, "--rendition: " + wrong.getMessage());
        }
        Integer sound = audio == null ? null : Integer.valueOf(audio.equals("none") ? "0" : audio);
        try (JavaSparkContext spark = new JavaSparkContext(new SparkConf().setIfMissing("spark.app.name", "kelvane transcode"))) {
            Path made = new Path(output);
            InputList found = new InputList(made.getFileSystem(spark.hadoopConfiguration()).makeQualified(made).toString(),
                    spark.hadoopConfiguration());
            for (String input : inputs) {
                found.add(input);
            }
            if (list != null) {
                found.addList(list);
            }
            return new LibraryRun(spark, new Settings(renditions, sound, segment, chunk), resume).run(found.sources());
        }
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }

    public static void main(String[] arguments) {
        CommandLine job = new CommandLine(new TranscodeJob())
                .setOut(new PrintWriter(Caller.OUTPUT, true))
                .setErr(new PrintWriter(Caller.ERRORS, true))
                .setParameterExceptionHandler((wrong, given) ->
                        report(wrong.getMessage() + " (--help tells more)", CommandLine.ExitCode.USAGE))
                .setExecutionExceptionHandler((failure, command, parsed) ->
                        report(explain(failure), CommandLine.ExitCode.SOFTWARE));
        System.exit(job.execute(arguments));
    }

    private static int report(String message, int exitCode) {
        Caller.ERRORS.println("kelvane transcode: " + message.strip().replaceAll("\\s*\\R\\s*", " "));
        return exitCode;
    }

    private static String explain(Throwable failure) {
        return failure instanceof Failure || failure instanceof MediaException ? failure.getMessage()
                : failure instanceof IOException ? Failure.reason((IOException) failure)
                : failure instanceof SparkException ? String.valueOf(failure.getMessage()).replaceAll("(?s)\\R.*", "")
                : failure.toString();
    }

    static String version() {
        String version = TranscodeJob.class.getPackage().getImplementationVersion();
        return version == null ? "(development build)" : version;
    }

    static final class Version implements IVersionProvider {
        @Override
        public String[] getVersion() {
            return new String[] {"kelvane " + version()};
        }
    }
}
