#pragma once

#include "bridge/Owners.h"

#include <cstdint>

// Encodes packed I420 pictures to H.264 through FFmpeg's OpenH264 encoder: low delay, no B-frames, a key
// frame every two seconds of pictures. The four parameters are set before open() and are fixed from then on,
// but for the bit rate.
class VideoEncoder {
public:
    int64_t handle = 0;
    const AVCodec* codec = nullptr; // null means that FFmpeg has no such encoder
    CodecContextOwner context;
    ImageFrameOwner frame; // the raw picture
    FrameOwner given;      // for even sizes: as `frame`, but its planes are those of the caller's picture
    AVPacket packet{};
    int32_t width = 0; // pixels
    int32_t height = 0;
    int32_t frameRate = 0;        // pictures per second; open() turns 0 into 15
    int32_t bitRate = 0;          // target, bits per second
    int32_t encodedSize = 0;      // bytes of the last access unit
    int32_t status = 1;           // 0 while open, 1 before open() and after one that failed
    int32_t encodedTimestamp = 0; // of the last access unit, in the caller's unit
    int32_t failure = 0;          // 0 when the last picture was encoded or the encoder skipped it; otherwise FFmpeg's
                                  // error code, or -1 when the picture or its access unit had no room
    bool renewed = false;         // pictures that fail are reported no more
    bool keyRequested = false;    // of the next picture

    // Leaves its outcome in `status` and `codec`.
    void open();

    // `data`: a packed picture of the engine's size; its access unit is written over it. Returns 1 when there
    // is one; 0 when there is none, when `length` is less than the picture's or than the access unit's size.
    int encode(signed char* data, int length, unsigned int timestamp);

    // Makes the next picture that is encoded a key frame.
    void requestKey() { keyRequested = true; }

    // From the next picture on, which is a key frame: FFmpeg takes another rate in another encoder alone. As
    // it holds no picture back, none is lost. When FFmpeg opens none, what was there goes on. Returns whether
    // the rate holds.
    bool setBitRate(int32_t bitsPerSecond);

    // Makes FFmpeg's encoder anew, with the same settings: OpenH264 encodes nothing more after a picture that failed.
    // Its first picture is a key frame. Returns whether it opened.
    bool renew();

    void close();

private:
    CodecContextOwner makeContext() const;
    bool makePictures();
    int encodeChecked(signed char* data, int length, unsigned int timestamp);
};
