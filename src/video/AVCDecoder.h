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
    bool needsKey = false;       // no picture to begin with came out since outcome() told of damage
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

    // Of the last decode(); to be called once behind each, by those who watch the stream. Nothing that is
    // decoded depends on it.
    DecodeOutcome outcome();

    void close();

private:
    enum Fields : uint32_t { topField = 1, bottomField = 2, bothFields = 3, noFrame = 4 }; // FFmpeg's numbers

    // How far FFmpeg has come with the present stream.
    struct Progress {
        uint32_t fields = noFrame; // of the frame that it began last: those that it decoded rows of
        int32_t slices = 0;        // given to it since it began that frame, or gave it up
        int32_t refused = 0;       // pictures in a row that it did not begin
        uint32_t unseen = 0;       // since a picture came out: odd behind an IDR picture, even again behind
                                   // the first whole frame from there on
        bool inPieces = false;     // a picture came in more than one call
        int32_t waiting = 0;       // pictures begun that did not come out: held back, or never to be seen
        bool draining = false;     // drain() has begun, and has not come to its end
    };

    int decodeChecked(const signed char* data, int size, unsigned int time);
    int receive(bool got);
    void beginAnew();
    void endStream();
    static AVPixelFormat acceptSize(AVCodecContext* codecContext, const AVPixelFormat* formats);
    static int beginFrame(AVCodecContext* codecContext, AVFrame* picture, int flags);
    static void seeRows(AVCodecContext* codecContext, const AVFrame* picture, int* offsets, int y, int fields,
                        int height);
    bool admit(int size, int nalUnits, int slices);
    bool isRefused(int start, uint32_t fieldsBefore);
    bool clearTheWay(int start, uint32_t fieldsBefore, uint32_t unseenBefore);
    void giveUpPicture();
    DecodeOutcome judge();

    // What outcome() goes by, of the last decode().
    struct Call {
        bool isGiven;          // to FFmpeg, which threw nothing
        int32_t slices;        // in the access unit
        int32_t start;         // the NAL unit type of the first slice when that begins a picture
        uint32_t fieldsBefore; // Progress::fields, before it
        int32_t begun;         // frames, by FFmpeg
    };

    Progress progress;
    Call call{};
};
