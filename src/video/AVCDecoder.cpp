#include "video/AVCDecoder.h"

#include "bridge/Exceptions.h"
#include "bridge/JavaCall.h"
#include "bridge/Log.h"
#include "bridge/Registries.h"
#include "bridge/StartCodes.h"
#include "com_kelvane_media_transform_codec_AVCDecoder.h"
#include "video/I420.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <cstring>
#include <utility>

// The decoding calls of FFmpeg 4 that are meant here are deprecated there.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr Log say("VideoDecoder");

enum NalUnitType { otherSlice = 1, idrSlice = 5 };

// A picture of the highest level of the standard, 6.2, has at most so many macroblocks.
constexpr int largestPicture = 139264;
// Of one picture. FFmpeg numbers them in 16 bits, of which one value means that there is none.
constexpr int mostSlices = 8192;
// Of one access unit. FFmpeg keeps more than 4 KB for each that it ever found in one.
constexpr int mostNalUnits = mostSlices + 2048;
// Bytes of one access unit: a picture of the highest level, uncompressed, with 14-bit samples in full chroma.
constexpr int largestAccessUnit = largestPicture * (768 * 14 + 128) / 8;

// What FFmpeg is going to find in an access unit.
struct Contents {
    int nalUnits = 0;
    int slices = 0;
    int pictureStart = 0; // the NAL unit type of the first slice when that begins a picture
};

Contents contentsOf(const signed char* data, int size) {
    Contents contents;
    const signed char* const end = data + size;
    for (const signed char* at = behindStartCode(data, end); at; at = behindStartCode(at, end)) {
        ++contents.nalUnits;
        if (end - at < 2) break;
        const int type = at[0] & 31;
        if (type != otherSlice && type != idrSlice) continue;
        // The top bit alone is the macroblock number 0.
        if (contents.slices++ == 0 && at[1] < 0) contents.pictureStart = type;
    }
    return contents;
}

// Whether FFmpeg has a picture for the packet. Its errors change nothing: there is none then.
bool pictureOf(AVCodecContext& context, AVFrame& frame, const AVPacket& packet) {
    int got = 0;
    avcodec_decode_video2(&context, &frame, &got, &packet);
    return got > 0;
}

} // namespace

void VideoDecoder::open() {
    codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    context.reset(avcodec_alloc_context3(codec));
    if (context) {
        context->flags2 |= AV_CODEC_FLAG2_CHUNKS;
        context->flags |= AV_CODEC_FLAG_TRUNCATED;
        context->refcounted_frames = 0;
        context->get_format = acceptSize;
        context->get_buffer2 = beginFrame;
        context->slice_flags = SLICE_FLAG_ALLOW_FIELD; // so that seeRows is told of first fields
        context->opaque = this;
    }
    frame.reset(av_frame_alloc());
    if (!context || openCodec(context, codec) < 0) {
        say.warning("AVC decoder codec not opened\n");
    } else if (context->codec) {
        say.debug("AVC decoder codec opened %d\n", context->refcounted_frames);
    } else {
        say.warning("AVC decoder setting codec\n");
        context->codec = codec;
    }
}

// FFmpeg asks for the format before it takes any memory for pictures of a new size; it holds none of the old
// size back.
AVPixelFormat VideoDecoder::acceptSize(AVCodecContext* codecContext, const AVPixelFormat* formats) {
    static_cast<VideoDecoder*>(codecContext->opaque)->progress.unseen %= 2;
    const int64_t macroblocks = int64_t{codecContext->coded_width / 16} * (codecContext->coded_height / 16);
    if (macroblocks > largestPicture) return AV_PIX_FMT_NONE;
    return avcodec_default_get_format(codecContext, formats);
}

// FFmpeg asks for a buffer once for each frame that it begins.
int VideoDecoder::beginFrame(AVCodecContext* codecContext, AVFrame* picture, int flags) {
    auto* const decoder = static_cast<VideoDecoder*>(codecContext->opaque);
    Progress& progress = decoder->progress;
    progress.fields = 0;
    progress.slices = progress.refused = 0;
    ++decoder->call.begun;
    codecContext->draw_horiz_band = seeRows;
    return avcodec_default_get_buffer2(codecContext, picture, flags);
}

// FFmpeg tells of each row of macroblocks that it has decoded. What is asked here is whether it belongs to a
// frame or to one of two fields; so the first row of a frame is enough.
void VideoDecoder::seeRows(AVCodecContext* codecContext, const AVFrame*, int*, int, int fields, int) {
    Progress& progress = static_cast<VideoDecoder*>(codecContext->opaque)->progress;
    if ((progress.fields |= static_cast<uint32_t>(fields)) != bothFields) return;
    codecContext->draw_horiz_band = nullptr;
    progress.unseen += progress.unseen & 1;
}

// Taking pictures in chunks, FFmpeg's decoder waits for the rest of a picture whose end was lost and refuses
// every later one, without an error: it does not begin them. In a stream in good order it begins each one but
// second fields. (It also drops redundant slices and what lacks its parameter sets; giving up nothing then
// changes nothing.) Where pictures come in pieces, what it refuses may be a slice of the very picture that it
// waits for, which came twice or late; so the next one decides, unless all that follows needs this one.
bool VideoDecoder::isRefused(int start, uint32_t fieldsBefore) {
    if (fieldsBefore == noFrame) return false;
    if (fieldsBefore == topField || fieldsBefore == bottomField) {
        progress.fields = bothFields; // even if this slice of the second field is shorter than a row
        return false;
    }
    return ++progress.refused > (progress.inPieces ? 1 : 0) || start == idrSlice;
}

// After a call that begins a picture and brings none out: whether FFmpeg was in the way, and is to be given
// the packet once more.
bool VideoDecoder::clearTheWay(int start, uint32_t fieldsBefore, uint32_t unseenBefore) {
    const bool isIdr = start == idrSlice, isBegun = progress.slices == 0;
    if (isBegun && isIdr && unseenBefore / 2 > static_cast<uint32_t>(context->has_b_frames)) {
        // Where order was lost, FFmpeg may begin every frame and show none, for ever. Of the IDR pictures
        // that it decoded whole frames with, all that did not come out are held back, and it knows how many
        // those are. (A field without its partner is dropped; it proves nothing.) What is held back and
        // referred to can go: this picture needs none of it.
        avcodec_flush_buffers(context.get());
        progress.unseen = 1;
        return true;
    }
    // Behind an unfinished frame FFmpeg does begin an IDR picture, but with that one's parameter sets, in
    // which it may fail again, and again behind the failed one.
    const bool failsAgain = isIdr && progress.fields == 0 && fieldsBefore == 0;
    if (!(isBegun ? failsAgain : isRefused(start, fieldsBefore))) return false;
    giveUpPicture();
    return true;
}

// A call that is not in chunks ends the wait, as every packet does where FFmpeg is given whole ones; the
// pictures that are held back and those that are referred to stay. An access unit delimiter has no effect
// of its own.
void VideoDecoder::giveUpPicture() {
    uint8_t delimiter[] = {0, 0, 0, 1, 9, 0xF0};
    AVPacket lone;
    av_init_packet(&lone);
    lone.data = delimiter;
    lone.size = sizeof delimiter;
    context->flags2 &= ~AV_CODEC_FLAG2_CHUNKS;
    pictureOf(*context, *frame, lone);
    context->flags2 |= AV_CODEC_FLAG2_CHUNKS;
    progress.slices = progress.refused = 0;
}

// Strangers can write what FFmpeg pays for dearly, or what it takes for something else.
bool VideoDecoder::admit(int size, int nalUnits, int slices) {
    if (size > largestAccessUnit || nalUnits > mostNalUnits || slices > mostSlices) return false;
    // In chunks, the slices of a picture may come in any number of calls.
    if (progress.slices + slices > mostSlices) giveUpPicture();
    progress.slices += slices;
    return true;
}

DecodeOutcome VideoDecoder::outcome() {
    const DecodeOutcome last = judge();
    needsKey |= last == DecodeOutcome::damaged || last == DecodeOutcome::refused;
    return last;
}

DecodeOutcome VideoDecoder::judge() {
    if (!call.isGiven) return DecodeOutcome::refused;
    if (pictureReady) {
        progress.waiting = std::clamp(progress.waiting - (call.begun > 0 ? 0 : 1), 0, context->has_b_frames);
        if (frame->key_frame) needsKey = false;
        // FFmpeg begins a frame of its own for each that the numbers of the others leave out.
        const bool isWhole = call.begun <= 1 && frame->decode_error_flags == 0;
        return isWhole && (frame->flags & AV_FRAME_FLAG_CORRUPT) == 0 ? DecodeOutcome::decoded
                                                                      : DecodeOutcome::damaged;
    }
    if (call.slices == 0) return DecodeOutcome::noPicture;
    if (call.begun > 0) ++progress.waiting;
    const auto isField = [](uint32_t fields) { return fields == topField || fields == bottomField; };
    const bool isTaken =
        call.begun > 0 ? isField(progress.fields) || progress.waiting <= context->has_b_frames
                       : isField(call.fieldsBefore) || (call.start == 0 && call.fieldsBefore != noFrame);
    return isTaken ? DecodeOutcome::heldBack : DecodeOutcome::refused;
}

int VideoDecoder::decode(signed char* data, int size, unsigned int time) {
    constexpr signed char startCode[] = {0, 0, 0, 1};
    call.isGiven = false;
    pictureReady = 0;
    pictureWaiting = false;
    if (size < 4 || std::memcmp(data, startCode, sizeof startCode) != 0) {
        signed char first[4] = {};
        std::copy_n(data, std::clamp(size, 0, 4), first);
        say.warning("bad input to decoder %d  %d  %d  %d  %d\n   ", size, first[0], first[1], first[2],
                    first[3]);
        return -1;
    }
    // FFmpeg reads through null in a context that failed to open.
    if (!frame || !context || !avcodec_is_open(context.get())) return 0;
    int result = 0;
    if (!completes([&] { result = decodeChecked(data, size, time); })) beginAnew();
    return result;
}

// Behind an exception: over what it had done by half, FFmpeg would end the process in the next call.
void VideoDecoder::beginAnew() {
    say.warning("Exception in decode\n");
    av_packet_unref(&packet);
    close();
    open();
}

int VideoDecoder::decodeChecked(const signed char* data, int size, unsigned int time) {
    if (progress.draining) endStream(); // what was still held back belongs to the old one
    const Contents contents = contentsOf(data, size);
    if (!admit(size, contents.nalUnits, contents.slices)) return 0;
    // av_new_packet makes the private, padded copy; reference-counted, so that FFmpeg takes no second one.
    if (av_new_packet(&packet, size) < 0) return 0;
    packet.pts = int64_t{time} * 1000;
    std::memcpy(packet.data, data, static_cast<size_t>(size));
    const uint32_t fieldsBefore = progress.fields, unseenBefore = progress.unseen;
    call = {false, contents.slices, contents.pictureStart, fieldsBefore, 0};
    if (contents.slices > 0 && contents.pictureStart == 0) progress.inPieces = true;
    if (contents.pictureStart == idrSlice) progress.unseen |= 1;
    bool got = pictureOf(*context, *frame, packet);
    if (!got && contents.pictureStart != 0 && clearTheWay(contents.pictureStart, fieldsBefore, unseenBefore))
        got = pictureOf(*context, *frame, packet);
    if (progress.slices == 0) progress.slices = contents.slices; // of the frame that was begun in this call
    if (got) progress.unseen = 0;
    call.isGiven = true;
    timestamp = time;
    av_packet_unref(&packet);
    return receive(got);
}

int VideoDecoder::receive(bool got) {
    if (!got) return 0;
    if (frame->width != width || frame->height != height) {
        width = frame->width;
        height = frame->height;
        say.debug("set/update w:%d  h:%d\n", width, height);
    }
    pictureTime = static_cast<uint32_t>(frame->pkt_pts / 1000);
    pictureReady = 1;
    return 1;
}

int VideoDecoder::drain() {
    pictureReady = 0;
    pictureWaiting = false;
    if (!frame || !context || !avcodec_is_open(context.get())) return 0;
    av_init_packet(&packet);
    packet.data = nullptr; // which is how FFmpeg is told that the stream has ended
    packet.size = 0;
    progress.draining = true;
    call = {true, 0, 0, 0, 0}; // without slices
    bool got = false;
    if (!completes([&] { got = pictureOf(*context, *frame, packet); }))
        beginAnew();
    else if (!got)
        endStream();
    return receive(got);
}

void VideoDecoder::endStream() {
    avcodec_flush_buffers(context.get());
    context->has_b_frames = 0; // the delay that FFmpeg learnt from the old stream
    progress = {};
    needsKey = false;
}

void VideoDecoder::close() {
    frame.reset();
    context.reset();
    codec = nullptr;
    progress = {};
}

namespace {

// Any picture as 8-bit 4:2:0; null when that fails. Rare enough for a scaler and a frame of its own.
ImageFrameOwner convertToYuv420(const AVFrame& picture) {
    const auto format = static_cast<AVPixelFormat>(picture.format);
    const bool fullRange = format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ444P;
    ImageFrameOwner converted(av_frame_alloc());
    if (!converted) return nullptr;
    converted->format = fullRange ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    converted->width = picture.width;
    converted->height = picture.height;
    const auto target = static_cast<AVPixelFormat>(converted->format);
    const ScalerOwner scaler(sws_getContext(picture.width, picture.height, format, picture.width,
                                            picture.height, target, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!scaler ||
        av_image_alloc(converted->data, converted->linesize, picture.width, picture.height, target, 32) < 0)
        return nullptr;
    if (sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, converted->data,
                  converted->linesize) != picture.height)
        return nullptr;
    return converted;
}

bool isYuv420(int format) { return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P; }

constexpr jsize infoSize = 6;

// Copies the decoder's picture out; one that `output` or `info` is not made for waits.
jint deliver(VideoDecoder& decoder, JavaCall& java, jbyteArray info, jbyteArray output) {
    const AVFrame& picture = *decoder.frame;
    const int pictureSize = packedPictureSize(picture.width, picture.height);
    decoder.pictureWaiting = pictureSize != java.env->GetArrayLength(output);
    if (decoder.pictureWaiting) {
        say.warning("AVC decoder warning, picSize  != outLeng  %d\n", pictureSize);
        return -pictureSize;
    }
    ImageFrameOwner converted;
    if (!isYuv420(picture.format) && !(converted = convertToYuv420(picture))) return 0;
    jsize at = 0;
    // Row by row into the array: a packed copy in between would cost more than the calls do.
    givePacked(converted ? *converted : picture, [&](const uint8_t* bytes, int count, uint8_t filler) {
        if (!bytes) return java.fillWithin(output, std::exchange(at, at + count), filler, count);
        java.copyWithin(output, bytes, count, std::exchange(at, at + count));
    });

    uint8_t about[infoSize] = {1};
    putBigEndian(about + 1, 2, static_cast<uint32_t>(picture.width));
    putBigEndian(about + 3, 2, static_cast<uint32_t>(picture.height));
    about[5] = static_cast<uint8_t>(picture.format);
    decoder.pictureWaiting = java.env->GetArrayLength(info) < infoSize;
    java.copyOut(info, about, infoSize);
    return 1;
}

// Asked where a picture may still be left where it is; Java sees an exception over a shorter array.
bool takesInfo(JavaCall& java, jbyteArray info) {
    if (java.env->GetArrayLength(info) >= infoSize) return true;
    constexpr uint8_t nothing[infoSize] = {};
    java.copyOut(info, nothing, infoSize); // raises, and copies nothing
    return false;
}

// `input` is called for the access unit, once all else is there.
template <class Input>
jint decodeInto(JNIEnv* env, uint32_t time, Input&& input, jbyteArray info, jbyteArray output, jlong handle) {
    VideoDecoder* decoder = avc_dec_ctx.GetCoder(handle);
    if (!decoder || !info || !output) return 0;
    JavaCall java(env);
    const ArrayCopy accessUnit = input(java);
    if (!accessUnit) return 0;
    const int result = decoder->decode(accessUnit.as<signed char>(), accessUnit.size, time);
    return result == 1 ? deliver(*decoder, java, info, output) : result;
}

auto wholeOf(jbyteArray input) {
    return [input](const JavaCall& java) { return input ? java.copyIn(input) : ArrayCopy(); };
}

} // namespace

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_open(JNIEnv*, jclass) {
    av_register_all();
    av_log_set_level(AV_LOG_QUIET);
    VideoDecoder* decoder = avc_dec_ctx.NewCodec();
    if (!decoder) return -1;
    decoder->open();
    if (decoder->codec) return decoder->handle;
    avc_dec_ctx.RemoveCodec(decoder->handle);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_decode(
    JNIEnv* env, jclass, jbyteArray input, jbyteArray info, jbyteArray output, jlong handle) {
    return decodeInto(env, 0, wholeOf(input), info, output, handle);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_decodeAt(
    JNIEnv* env, jclass, jlong timestamp, jbyteArray input, jbyteArray info, jbyteArray output,
    jlong handle) {
    return decodeInto(env, static_cast<uint32_t>(timestamp), wholeOf(input), info, output, handle);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_decodePart(
    JNIEnv* env, jclass, jlong timestamp, jbyteArray data, jobject direct, jint from, jint size,
    jbyteArray info, jbyteArray output, jlong handle) {
    const auto part = [=](const JavaCall& java) { return java.copyIn(data, direct, from, size); };
    return decodeInto(env, static_cast<uint32_t>(timestamp), part, info, output, handle);
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_drain(JNIEnv* env, jclass,
                                                                               jbyteArray info,
                                                                               jbyteArray output,
                                                                               jlong handle) {
    VideoDecoder* decoder = avc_dec_ctx.GetCoder(handle);
    if (!decoder || !info || !output) return 0;
    JavaCall java(env);
    return takesInfo(java, info) && decoder->drain() == 1 ? deliver(*decoder, java, info, output) : 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_take(JNIEnv* env, jclass,
                                                                              jbyteArray info,
                                                                              jbyteArray output,
                                                                              jlong handle) {
    VideoDecoder* decoder = avc_dec_ctx.GetCoder(handle);
    if (!decoder || !info || !output || !decoder->pictureWaiting) return 0;
    JavaCall java(env);
    return takesInfo(java, info) ? deliver(*decoder, java, info, output) : 0;
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_pictureTime(JNIEnv*, jclass,
                                                                                      jlong handle) {
    const VideoDecoder* decoder = avc_dec_ctx.GetCoder(handle);
    return decoder ? decoder->pictureTime : 0;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_AVCDecoder_close(JNIEnv*, jclass,
                                                                               jlong handle) {
    if (closeCodec(avc_dec_ctx, handle)) say.debug("AVC decoder codec closed\n");
}
