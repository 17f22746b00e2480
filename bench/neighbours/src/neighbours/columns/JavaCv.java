package neighbours.columns;

import java.io.BufferedInputStream;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Consumer;
import neighbours.Case;
import neighbours.Column;
import org.bytedeco.ffmpeg.avcodec.AVCodec;
import org.bytedeco.ffmpeg.avcodec.AVCodecContext;
import org.bytedeco.ffmpeg.avcodec.AVPacket;
import org.bytedeco.ffmpeg.avutil.AVDictionary;
import org.bytedeco.ffmpeg.avutil.AVFrame;
import org.bytedeco.ffmpeg.global.avcodec;
import org.bytedeco.ffmpeg.global.avutil;
import org.bytedeco.javacpp.BytePointer;
import org.bytedeco.javacpp.Pointer;
import org.bytedeco.javacv.FFmpegFrameGrabber;
import org.bytedeco.javacv.FFmpegFrameRecorder;
import org.bytedeco.javacv.FFmpegLogCallback;
import org.bytedeco.javacv.Frame;

/** JavaCV over FFmpeg: its grabber and recorder, and the pointers of JavaCPP under them. */
public final class JavaCv implements Column {
    private static final int FRAMES = 25;

    private FFmpegFrameGrabber grabber;

    @Override
    public String title() {
        return "JavaCV";
    }

    @Override
    public List<String> jars() {
        return List.of("javacv-", "javacpp-", "ffmpeg-");
    }

    @Override
    public String smoke() throws Exception {
        try (FFmpegFrameGrabber reader = new FFmpegFrameGrabber(recorded())) {
            reader.start();
            int frames = 0;
            while (reader.grabImage() != null) {
                frames++;
            }
            return "FFmpeg " + avutil.av_version_info().getString() + ", " + FRAMES + " pictures written, " + frames
                    + " read";
        }
    }

    private static FFmpegFrameRecorder recorder(File file) {
        avutil.av_log_set_level(avutil.AV_LOG_ERROR);
        FFmpegFrameRecorder recorder = new FFmpegFrameRecorder(file, 320, 240);
        recorder.setFormat("avi");
        recorder.setVideoCodec(avcodec.AV_CODEC_ID_MPEG4);
        recorder.setFrameRate(25);
        return recorder;
    }

    private static File recorded() throws IOException {
        File file = File.createTempFile("recorded", ".avi");
        try (FFmpegFrameRecorder recorder = recorder(file)) {
            recorder.start();
            for (int i = 0; i < FRAMES; i++) {
                recorder.record(picture());
            }
        }
        return file;
    }

    private static Frame picture() {
        Frame grey = new Frame(320, 240, Frame.DEPTH_UBYTE, 3);
        ByteBuffer pixels = (ByteBuffer) grey.image[0];
        for (int i = 0; i < pixels.capacity(); i++) {
            pixels.put(i, (byte) 100);
        }
        return grey;
    }

    private static FFmpegFrameGrabber started() throws IOException {
        FFmpegFrameGrabber reader = new FFmpegFrameGrabber(recorded());
        reader.start();
        return reader;
    }

    private static FFmpegFrameRecorder startedRecorder() throws IOException {
        FFmpegFrameRecorder recorder = recorder(File.createTempFile("recorder", ".avi"));
        recorder.start();
        return recorder;
    }

    /** A recorder that one wrong setting was given to. */
    private static String setting(Consumer<FFmpegFrameRecorder> set) throws IOException {
        FFmpegLogCallback.set();
        FFmpegFrameRecorder recorder = recorder(File.createTempFile("recorder", ".avi"));
        set.accept(recorder);
        recorder.start();
        recorder.record(picture());
        recorder.close();
        return "accepted, records";
    }

    /** A grabber on a stream that, in the read after it is armed, does something to that grabber. */
    private String inRead(Case.Action misuse) throws IOException {
        String[] inside = {"not reached"};
        boolean[] armed = {false};
        InputStream file = new BufferedInputStream(Files.newInputStream(recorded().toPath()));
        InputStream stream = new InputStream() {
            @Override
            public int read() throws IOException {
                return file.read();
            }

            @Override
            public int read(byte[] into, int from, int count) throws IOException {
                if (armed[0]) {
                    armed[0] = false;
                    inside[0] = "entered, not left";
                    try {
                        misuse.run();
                        inside[0] = "returned";
                    } catch (IllegalArgumentException own) {
                        inside[0] = "threw";
                        throw own;
                    } catch (Throwable t) {
                        inside[0] = Case.describe(t);
                    }
                }
                // Short reads, so that grabbing needs the stream again and again.
                return file.read(into, from, Math.min(count, 512));
            }
        };
        grabber = new FFmpegFrameGrabber(stream, 0);
        grabber.start();
        armed[0] = true;
        String outside = Case.attempt(() -> {
            int frames = 0;
            while (grabber.grabImage() != null) {
                frames++;
            }
            return frames + " pictures read";
        });
        return "in read(): " + inside[0] + "; grabbing: " + outside;
    }

    private static String pictureAfterClose() throws IOException {
        FFmpegFrameGrabber reader = started();
        ByteBuffer pixels = (ByteBuffer) reader.grabImage().image[0];
        long before = differing(pixels);
        reader.close();
        return before + " of " + pixels.capacity() + " bytes were not grey, now " + differing(pixels) + " are not";
    }

    /** How many bytes are further from the grey that was recorded than the encoder and its colours bring. */
    private static long differing(ByteBuffer pixels) {
        long count = 0;
        for (int i = 0; i < pixels.capacity(); i++) {
            count += Math.abs((pixels.get(i) & 255) - 100) > 8 ? 1 : 0;
        }
        return count;
    }

    private static AVCodecContext decoder() {
        AVCodec codec = avcodec.avcodec_find_decoder(avcodec.AV_CODEC_ID_MPEG4);
        AVCodecContext context = avcodec.avcodec_alloc_context3(codec);
        avcodec.avcodec_open2(context, codec, (AVDictionary) null);
        return context;
    }

    private static String each(Case.Action first, Case.Action second) {
        return "first " + Case.attemptOf(first) + ", second " + Case.attemptOf(second);
    }

    @Override
    public List<Case> cases() {
        return List.of(
                new Case(3, "grabber", () -> {
                    FFmpegFrameGrabber reader = started();
                    reader.close();
                    return "returns " + reader.grabImage();
                }),
                new Case(3, "recorder", () -> {
                    FFmpegFrameRecorder recorder = startedRecorder();
                    recorder.close();
                    recorder.record(picture());
                    return "returns";
                }),
                new Case(3, "pixels of a closed grabber's picture", JavaCv::pictureAfterClose),
                new Case(3, "pointer closed by its close()", () -> {
                    AVPacket packet = new AVPacket();
                    packet.close();
                    return "size " + packet.size();
                }),
                new Case(3, "pointer freed by av_frame_free", () -> {
                    AVFrame frame = avutil.av_frame_alloc();
                    avutil.av_frame_free(frame);
                    return "width " + frame.width();
                }),
                new Case(3, "second pointer to what was freed", () -> {
                    AVFrame frame = avutil.av_frame_alloc();
                    AVFrame second = new AVFrame(frame);
                    avutil.av_frame_free(frame);
                    return "width " + second.width() + ", format " + second.format();
                }),
                new Case(3, "codec context freed, then send_packet", () -> {
                    AVCodecContext context = decoder();
                    AVCodecContext second = new AVCodecContext(context);
                    avcodec.avcodec_free_context(context);
                    return "returns " + avcodec.avcodec_send_packet(second, new AVPacket());
                }),
                new Case(4, "grabber, recorder", () -> {
                    FFmpegFrameGrabber reader = started();
                    FFmpegFrameRecorder recorder = startedRecorder();
                    return "grabber " + each(reader::close, reader::close) + "; recorder "
                            + each(recorder::close, recorder::close);
                }),
                new Case(4, "pointer closed twice", () -> {
                    BytePointer memory = new BytePointer(1000);
                    return each(memory::close, memory::close);
                }),
                new Case(4, "av_frame_free twice on one pointer", () -> {
                    AVFrame frame = avutil.av_frame_alloc();
                    return each(() -> avutil.av_frame_free(frame),
                            () -> avutil.av_frame_free(frame));
                }),
                new Case(4, "av_frame_free through two pointers", () -> {
                    AVFrame frame = avutil.av_frame_alloc();
                    AVFrame second = new AVFrame(frame);
                    return each(() -> avutil.av_frame_free(frame),
                            () -> avutil.av_frame_free(second));
                }),
                new Case(5, "one grabber", () -> {
                    FFmpegFrameGrabber reader = started();
                    AtomicInteger restarts = new AtomicInteger();
                    return Case.hammer(() -> {
                        Frame frame = reader.grabImage();
                        if (frame == null) {
                            restarts.incrementAndGet();
                            reader.setTimestamp(0);
                        }
                        return frame == null || frame.imageWidth == 320 && frame.imageHeight == 240;
                    }) + ", rewound " + restarts;
                }),
                new Case(5, "grabber closed while they grab", () -> {
                    FFmpegFrameGrabber reader = started();
                    return Case.hammer(() -> {
                        Frame frame = reader.grabImage();
                        if (frame == null) {
                            reader.setTimestamp(0);
                            return true;
                        }
                        // Reads every pixel, as a user of the picture would.
                        return differing((ByteBuffer) frame.image[0]) == 0;
                    }, reader::close);
                }),
                new Case(5, "one recorder", () -> {
                    FFmpegFrameRecorder recorder = startedRecorder();
                    return Case.hammer(() -> {
                        recorder.record(picture());
                        return true;
                    });
                }),
                new Case(5, "raw: one codec context, send and receive", () -> {
                    avutil.av_log_set_level(avutil.AV_LOG_QUIET);
                    AVCodecContext encoder =
                            avcodec.avcodec_alloc_context3(avcodec.avcodec_find_encoder(avcodec.AV_CODEC_ID_MPEG4));
                    encoder.width(320).height(240).pix_fmt(avutil.AV_PIX_FMT_YUV420P);
                    encoder.time_base(avutil.av_make_q(1, 25));
                    avcodec.avcodec_open2(encoder, avcodec.avcodec_find_encoder(avcodec.AV_CODEC_ID_MPEG4),
                            (AVDictionary) null);
                    AtomicInteger time = new AtomicInteger();
                    ThreadLocal<AVFrame> frames = ThreadLocal.withInitial(() -> {
                        AVFrame frame = avutil.av_frame_alloc();
                        frame.width(320).height(240).format(avutil.AV_PIX_FMT_YUV420P);
                        avutil.av_frame_get_buffer(frame, 0);
                        return frame;
                    });
                    ThreadLocal<AVPacket> packets = ThreadLocal.withInitial(avcodec::av_packet_alloc);
                    return Case.hammer(() -> {
                        frames.get().pts(time.incrementAndGet());
                        avcodec.avcodec_send_frame(encoder, frames.get());
                        return avcodec.avcodec_receive_packet(encoder, packets.get()) == 0;
                    });
                }),
                new Case(6, "read() closes the grabber", () -> inRead(() -> grabber.close())),
                new Case(6, "read() grabs", () -> inRead(() -> grabber.grabImage())),
                new Case(6, "read() throws", () -> inRead(() -> {
                    throw new IllegalArgumentException("from read()");
                })),
                new Case(7, "null context", () ->
                    "returns " + avcodec.avcodec_send_packet(null, new AVPacket())),
                new Case(7, "null frame's width", () -> "returns " + new AVFrame((Pointer) null).width()),
                new Case(7, "a frame as codec context", () ->
                    "returns " + avcodec.avcodec_send_packet(new AVCodecContext(avutil.av_frame_alloc()),
                        avcodec.av_packet_alloc())),
                new Case(7, "a thousand bytes as codec context", () ->
                    "returns " + avcodec.avcodec_send_packet(new AVCodecContext(new BytePointer(1000).fill(65)),
                        avcodec.av_packet_alloc())),
                new Case(8, "setVideoOption(no_such_setting)", () ->
                    setting(recorder -> recorder.setVideoOption("no_such_setting", "1"))),
                new Case(8, "setVideoOption(mpeg_quant, banana)", () ->
                    setting(recorder -> recorder.setVideoOption("mpeg_quant", "banana"))),
                new Case(8, "setVideoCodecName(banana)", () ->
                    setting(recorder -> recorder.setVideoCodecName("banana"))),
                new Case(8, "setFormat(banana)", () -> setting(recorder -> recorder.setFormat("banana"))),
                new Case(8, "setImageWidth(-5)", () -> setting(recorder -> recorder.setImageWidth(-5))),
                new Case(8, "grabber.setOption(no_such_setting)", () -> {
                    FFmpegFrameGrabber reader = new FFmpegFrameGrabber(recorded());
                    reader.setOption("no_such_setting", "1");
                    reader.start();
                    return "accepted, reads " + (reader.grabImage() != null);
                }),
                new Case(9, "grabbers", () -> {
                    File file = recorded();
                    return Case.forget(200, () -> {
                        FFmpegFrameGrabber reader = new FFmpegFrameGrabber(file);
                        reader.start();
                        reader.grabImage();
                    });
                }),
                new Case(9, "new BytePointer(1 MB)", () ->
                    Case.forget(300, () -> new BytePointer(1 << 20).fill(1))),
                new Case(9, "av_frame_alloc with a 1 MB buffer", () -> Case.forget(300, () -> {
                    AVFrame frame = avutil.av_frame_alloc();
                    frame.width(1024).height(1024).format(avutil.AV_PIX_FMT_GRAY8);
                    avutil.av_frame_get_buffer(frame, 0);
                    Pointer.memset(frame.data(0), 1, 1 << 20);
                })),
                new Case(13, "AVFrame.width() (a null check alone)", () -> {
                    AVFrame frame = avutil.av_frame_alloc();
                    return Case.nanoseconds(calls -> {
                        for (int i = 0; i < calls; i++) {
                            frame.width();
                        }
                    });
                }));
    }

}
