package com.kelvane.media.tool;

import com.kelvane.media.tool.input.LiveInput;
import com.kelvane.media.tool.live.LiveRun;
import com.kelvane.media.tool.live.LiveSettings;
import com.kelvane.media.tool.output.RenditionRequest;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.JsonLines;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.Callable;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import picocli.CommandLine.Command;
import picocli.CommandLine.ITypeConverter;
import picocli.CommandLine.Mixin;
import picocli.CommandLine.Model.CommandSpec;
import picocli.CommandLine.Option;
import picocli.CommandLine.ParameterException;
import picocli.CommandLine.Parameters;
import picocli.CommandLine.Spec;
import picocli.CommandLine.TypeConversionException;

@Command(name = "live", mixinStandardHelpOptions = true, versionProvider = Kelvane.Version.class, sortOptions = false,
        usageHelpAutoWidth = true,
        description = {"Makes a sliding HLS ladder of a stream while it comes.", ""},
        footer = {"", "DIR receives master.m3u8, a folder of segments and their playlist for each rendition and for the sound, and"
                + " index.html, a page with a player and the live figures. AAC is copied, MP3, Opus and PCM become AAC. When"
                + " standard input or the file ends, or at Ctrl-C (SIGINT, SIGTERM), the playlists are finished: what the window"
                + " has kept can be played from its beginning to its end. The port stays while players still read; a second"
                + " Ctrl-C ends at once.", "",
                "Where times jump, or another writer begins, the ladder's own times go on. When the machine is too slow, the"
                + " largest rendition is left out until there is time for it; the next smaller one's segments stand in for it in"
                + " its playlist.", "", "Example:", "  ffmpeg -i rtmp://localhost/live/one -c copy -f mpegts - | kelvane live - --http"
                + " 8080"})
final class LiveCommand implements Callable<Integer> {
    private static final int LONGEST_SEGMENT = 10;
    private static final int SHORTEST_WINDOW = 3; // segments, with which players begin

    @Spec
    private CommandSpec command;

    @Parameters(paramLabel = "INPUT", description = "MPEG-TS, FLV, Matroska or raw H.264: - for standard input; a named pipe, which"
            + " is opened again when its writer has gone; or a file, of any kind that `transcode` reads, played as fast as its"
            + " times say.")
    private Path input;

    @Option(names = {"-r", "--rendition"}, paramLabel = "WxH@BITRATE[,...]", converter = RenditionRequest.Converter.class,
            description = "A rendition, as of `transcode`; may be given several times (default: the three largest usual sizes that"
                    + " fit into the source).")
    private List<RenditionRequest> renditions = new ArrayList<>();

    @Option(names = "--http", paramLabel = "[HOST:]PORT", converter = AddressConverter.class, description = "Serve DIR and the live"
            + " figures at this port, to this machine alone; a HOST, like 0.0.0.0, serves others, too. Port 0 takes a free one.")
    private InetSocketAddress address;

    @Option(names = {"-o", "--output"}, paramLabel = "DIR", description = "Directory for the ladder, made if need be (default:"
            + " ${DEFAULT-VALUE}).")
    private Path directory = Path.of("live");

    @Option(names = "--window", paramLabel = "SECONDS", description = "How much is listed in the playlists (default:"
            + " ${DEFAULT-VALUE}); the directory holds two segments more. 0 keeps everything.")
    private int window = 60;

    @Option(names = "--segment", paramLabel = "SECONDS", description = "Length of segments, 1-10 whole seconds (default:"
            + " ${DEFAULT-VALUE}).")
    private int segment = 2;

    @Option(names = "--json", description = "Print lines of JSON: the figures every second, messages, and the figures in the"
            + " end.")
    private boolean json;

    @Mixin
    private SoundOption sound;

    static final class AddressConverter implements ITypeConverter<InetSocketAddress> {
        private static final Pattern ADDRESS = Pattern.compile("(?:(\\[[0-9a-fA-F:.]+]|[^:\\[\\]]+):)?(\\d{1,5})");

        @Override
        public InetSocketAddress convert(String text) {
            Matcher parts = ADDRESS.matcher(text);
            if (!parts.matches() || Integer.parseInt(parts.group(2)) > 65_535) {
                throw new TypeConversionException(text + ": expected a port, or an address and a port, like 8080 or"
                        + " 0.0.0.0:8080");
            }
            int port = Integer.parseInt(parts.group(2));
            InetSocketAddress address = parts.group(1) == null ? new InetSocketAddress(InetAddress.getLoopbackAddress(), port)
                    : new InetSocketAddress(parts.group(1), port);
            if (address.isUnresolved()) {
                throw new TypeConversionException(text + ": there is no host " + parts.group(1));
            }
            return address;
        }
    }

    @Override
    public Integer call() throws IOException {
        Set<String> sizes = new HashSet<>();
        for (RenditionRequest request : renditions) {
            check(sizes.add(request.size()), "there are two renditions of " + request.size()
                    + "; folders are named after sizes, so each can be made once");
        }
        check(segment >= 1 && segment <= LONGEST_SEGMENT, "--segment takes whole seconds from 1 to " + LONGEST_SEGMENT);
        check(window == 0 || window >= SHORTEST_WINDOW * segment, "--window takes 0 or at least " + SHORTEST_WINDOW
                + " segments, " + SHORTEST_WINDOW * segment + " seconds");
        Path results = Caller.path(directory);
        Path source = input.toString().equals("-") ? null : Caller.path(input);
        LiveInput live = new LiveInput(source, sound::choose);
        // Folders are named after sizes, which a default ladder takes from the source.
        check(source == null || !String.valueOf(source.getParent().getFileName()).matches("\\d+x\\d+")
                || !source.getParent().getParent().equals(results),
                source + " lies in the folder of a rendition; name another directory with -o");
        if (json) {
            JsonLines.turnOn();
        }
        new LiveRun(new LiveSettings(renditions, results, segment, window, address), live).run();
        return 0;
    }

    private void check(boolean right, String message) {
        if (!right) {
            throw new ParameterException(command.commandLine(), message);
        }
    }
}
