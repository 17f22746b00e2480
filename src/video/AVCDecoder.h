#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// What became of one access unit.
enum class DecodeOutcome {
    decoded,
    damaged,   // a picture came out that FFmpeg concealed errors in, or made up others for that were missing
    heldBack,  // its picture is to come out later
    noPicture, // there is none in it
    refused    // there is one in it, of which FFmpeg makes nothing
};

// Decodes one H.264 access unit a call. The decoded picture stays in `frame`, which FFmpeg's decoder owns the
// planes of: it is valid until the next decode(), drain() or close(), and users read it in place.
class VideoDecoder {
public:
    int64_t handle = 0;
    const AVCodec* codec = nullptr; // null means that no H.264 decoder is available
    CodecContextOwner context;
    FrameOwner frame;
    AVPacket packet{};
    int32_t pictureReady = 0; // 1 when the last decode() or drain() left a picture in `frame`
    uint32_t timestamp = 0;   // of the last decode() that got past the check of its input
    int32_t width = 0;        // of the last picture
    int32_t height = 0;
    uint32_t pictureTime = 0;    // of the last picture: the time of the access unit that carried it
    DecodeOutcome outcome = DecodeOutcome::noPicture; // of the last decode(), for those who watch the stream
    bool needsKey = false;       // since a picture was damaged or refused, none that decoding can begin with came out
    bool pictureWaiting = false; // the picture in `frame` is still to be taken; decode() and drain() end that

    // A failure shows as `codec` null, or as a decoder that never produces a picture.
    void open();

    // `data`: an Annex-B access unit that starts with 00 00 00 01; `time` comes back as the pkt_pts of the
    // picture that this access unit carries, multiplied by 1000. Returns 1 when a picture is ready, 0 when
    // none is (corrupt data and what no level of the standard allows included), -1 when the input has no
    // start code.
    int decode(signed char* data, int size, unsigned int time);

    // Brings out the next picture that is held back for reordering, as decode() does. Returns 0 when there is
    // none: the decoder is then as good as new, but for the parameter sets it knows.
    int drain();

    void close();

private:
    int decodeChecked(const signed char* data, int size, unsigned int time);
    int receive(int got);
    static AVPixelFormat acceptSize(AVCodecContext* codecContext, const AVPixelFormat* formats);
    static int beginPicture(AVCodecContext* codecContext, AVFrame* picture, int flags);
    bool admit(int size, int nalUnits, int slices);
    bool isRefused(int start);
    void giveUpPicture();
    void judge(int slices, int pictureStarts, uint64_t begun, bool got);

    uint64_t picturesBegun = 0;    // by FFmpeg, in this stream
    int32_t refusedPictures = 0;   // in a row, which FFmpeg was given and did not begin
    int32_t unseenIdrPictures = 0; // begun since a picture last came out
    int32_t unseenPictures = 0;    // begun and not come out: held back, or never to be seen
    bool hadPicture = false;
    bool mayBeFields = true;       // a picture may take two access units: not known yet, or seen
    int32_t slicesGiven = 0;       // to FFmpeg, since it began its present picture or gave one up
};
