package com.kelvane.media.tool.live;

import com.kelvane.media.tool.input.AudioTrack;
import com.kelvane.media.tool.input.LiveInput;
import com.kelvane.media.tool.input.LivePacket;
import com.kelvane.media.tool.output.Page;
import com.kelvane.media.tool.output.RenditionOutput;
import com.kelvane.media.tool.output.Summary;
import com.kelvane.media.tool.packager.Names;
import com.kelvane.media.tool.shell.Caller;
import com.kelvane.media.tool.shell.JsonLines;
import com.kelvane.media.tool.shell.Progress;
import java.io.IOException;
import java.lang.reflect.Proxy;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;

/** One run of `kelvane live`, from the first input to a finished ladder. */
public final class LiveRun {
    private static final long POLL = 250;           // ms
    private static final double TERMINAL_INTERVAL = 1; // seconds between lines
    private static final double PLAIN_INTERVAL = 10;
    private static final double LONGEST_END = 10;   // seconds that an interrupted run may take to end
    private static final double SILENCE = 5;        // seconds without input that are worth a line
    private static final double LONGEST_SERVICE = 60; // seconds for which ended ladders without a window are served
    private static final double INTERRUPTED_SERVICE = 6; // seconds for which interrupted ones are
    private static final double LONGEST_PAUSE = 3;  // seconds, beside a segment's length, between what a live player asks for
    private static final int KILLED = 130;          // exit code

    private final LiveSettings settings;
    private final LiveInput input;
    private final LiveFigures figures;
    private final CountDownLatch done = new CountDownLatch(1);
    private volatile boolean interrupted;
    private volatile boolean succeeded;
    private volatile boolean ended;   // the lists are complete
    private volatile boolean hurried;
    private LiveSession session;
    private double nextLine;
    private double silentFor; // seconds, 0 while there is input
    private RuntimeException problem;

    public LiveRun(LiveSettings settings, LiveInput input) {
        this.settings = settings;
        this.input = input;
        figures = new LiveFigures(input.name());
    }

    /** Runs until the input ends or the process is interrupted, which is a run's usual end, too. */
    public void run() throws IOException {
        Thread hook = new Thread(this::interrupt);
        Runtime.getRuntime().addShutdownHook(hook);
        try {
            runToTheEnd();
        } finally {
            done.countDown();
        }
    }

    private void interrupt() {
        interrupted = true;
        hurried = ended;
        onNextInterrupt(() -> {
            hurried = true;
            if (!ended) {
                Runtime.getRuntime().halt(KILLED);
            }
        });
        try {
            done.await((long) (1000 * LONGEST_END), TimeUnit.MILLISECONDS);
            if (succeeded) {
                Runtime.getRuntime().halt(0);
            }
        } catch (InterruptedException asked) {
            Thread.currentThread().interrupt();
        }
    }

    /** The virtual machine, which ends by now, takes no notice of another signal; its own class for them is no part of Java. */
    private static void onNextInterrupt(Runnable action) {
        try {
            Class<?> signal = Class.forName("sun.misc.Signal");
            Class<?> handler = Class.forName("sun.misc.SignalHandler");
            Object acts = Proxy.newProxyInstance(handler.getClassLoader(), new Class<?>[] {handler}, (proxy, method, arguments) -> {
                action.run();
                return null;
            });
            for (String name : List.of("INT", "TERM")) {
                signal.getMethod("handle", signal, handler).invoke(null, signal.getConstructor(String.class).newInstance(name), acts);
            }
        } catch (ReflectiveOperationException | IllegalArgumentException notThere) {
            // Then it ends when it would have ended anyway.
        }
    }

    private void runToTheEnd() throws IOException {
        try (LiveFolder folder = new LiveFolder(settings.directory());
                LiveServer server = settings.address() == null ? null
                        : new LiveServer(settings.address(), folder, figures, () -> figures.json(input.bytesRead()))) {
            folder.write(Page.FILE, Page.live(input.name(), null));
            if (server != null) {
                Summary.line("page: http://%s:%d/", server.address().getAddress().isAnyLocalAddress() ? "localhost"
                        : server.address().getHostString(), server.address().getPort());
            }
            input.start();
            boolean playable;
            try {
                transcode(folder);
            } catch (RuntimeException unexpected) { // what there is can be played nevertheless
                problem = unexpected;
            } finally {
                playable = finish(folder);
                ended = true;
            }
            figures.state("ended");
            Progress.clear();
            if (playable) {
                folder.write(Page.FILE, Page.live(input.name(), figures.json(input.bytesRead())));
            }
            if (problem == null) {
                summarise(playable);
                succeeded = true;
            }
            if (playable && server != null) {
                serveOn(server);
            }
            if (problem != null) {
                throw problem;
            }
        }
    }

    /** Players are behind, and have yet to learn that the stream has ended. */
    private void serveOn(LiveServer server) {
        double begin = figures.now();
        double most = settings.window() > 0 ? settings.window() : LONGEST_SERVICE;
        double quiet = LONGEST_PAUSE + settings.segmentSeconds();
        if (server.quietSeconds() < quiet) {
            Summary.line("players still read; the port stays for up to %.0f s, Ctrl-C ends at once", most);
        }
        while (server.quietSeconds() < quiet && figures.now() - begin < (interrupted ? INTERRUPTED_SERVICE : most)
                && !hurried) {
            try {
                Thread.sleep(POLL);
            } catch (InterruptedException ended) {
                return;
            }
        }
    }

    /** Returns whether there is anything to play. */
    private boolean finish(LiveFolder folder) throws IOException {
        boolean playable = false;
        try (LiveSession ending = session) {
            playable = ending != null && ending.finish();
        } finally {
            if (!playable) {
                folder.removeAll(session == null ? List.of() : Stream.concat(Stream.of(Names.SOUND),
                        session.outputs().stream().map(RenditionOutput::size)).toList());
            }
        }
        return playable;
    }

    private void transcode(LiveFolder folder) throws IOException {
        while (!interrupted) {
            boolean waits = !input.hasMore();
            LiveInput.Item item = input.poll(POLL);
            if (item instanceof LivePacket packet) {
                figures.arrived(packet.arrival());
                session.add(packet, waits);
            } else if (item instanceof LiveInput.Opened opened) {
                open(opened, folder);
            } else if (item instanceof LiveInput.Ended ended) {
                if (ended.problem() != null) {
                    problem = session == null ? ended.problem() : null;
                    figures.note("problem", "%s", ended.problem().getMessage());
                }
                if (ended.last()) {
                    return;
                }
                if (session != null && ended.problem() == null) {
                    figures.note("ended", "%s has ended; waiting for the next", input.name());
                }
            }
            tell();
        }
    }

    private void open(LiveInput.Opened opened, LiveFolder folder) throws IOException {
        problem = null;
        AudioTrack audio = opened.audio();
        figures.note("opened", "%s: %dx%d, %.2f pictures a second", input.name(), opened.video().width(),
                opened.video().height(), opened.video().frameRate());
        if (session == null) {
            session = new LiveSession(settings, opened.video(), folder, figures);
        }
        session.begin(opened.video(), audio);
        figures.source(opened.video(), audio);
    }

    private void tell() {
        if (input.hasMore()) { // what waits has come, however old it is
            figures.arrived(System.nanoTime());
        }
        double silence = figures.silence();
        if (silence > SILENCE) {
            if (silentFor == 0) {
                figures.note("silent", "no input");
            }
            silentFor = silence;
        } else if (silentFor > 0) {
            figures.note("returned", "input again after %.1f s", silentFor);
            silentFor = 0;
        }
        double now = figures.now();
        if (now < nextLine) {
            return;
        }
        nextLine = now + (JsonLines.isOn() || Caller.TERMINAL ? TERMINAL_INTERVAL : PLAIN_INTERVAL);
        if (JsonLines.isOn()) {
            JsonLines.print("live", json -> figures.writeFields(json, input.bytesRead()));
        } else if (Caller.TERMINAL) {
            Progress.stage(figures.line());
        } else if (session != null) {
            Summary.line("%s", figures.line());
        }
    }

    private void summarise(boolean playable) {
        if (JsonLines.isOn()) {
            JsonLines.print("result", json -> figures.writeFields(json, input.bytesRead()));
        } else {
            Summary.line("%s", playable ? figures.ending() : "there was nothing to transcode");
            figures.lacking().forEach(line -> Summary.line("%s", line));
            if (playable) {
                Summary.line("results: %s", settings.directory());
            }
        }
    }
}
