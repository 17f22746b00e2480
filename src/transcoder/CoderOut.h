#pragma once

#include "bridge/Registries.h"
#include "video/AVCEncoder.h"

#include <cstdint>

// One rendition: scales every decoded picture to its own size, packs it and encodes it. The settings `width`
// to `debug` are those of the encoder; they take effect at open().
class CoderOut {
public:
    int32_t index = 0;    // the caller's id; 0 while no caller has claimed this output
    int32_t srcWidth = 0; // size of the pictures that the scaler was made for
    int32_t srcHeight = 0;
    int32_t width = 0; // of the rendition; with either at 0, both become the input's
    int32_t height = 0;
    int32_t bitrate = 0;
    int32_t fps = 0;
    int32_t keyInterval = 0;
    int32_t encMode = 0;
    int32_t maxBitrate = 0;
    int32_t profile = 0;
    int32_t maxQp = 0;
    int32_t minQp = 0;
    int32_t debug = 0;
    float pictureRate = 0; // steered, pictures per second; 0 while `fps` holds
    bool released = false; // encodes nothing
    OwnedEngine<NativeOpenH264Encoder> coder;
    ImageFrameOwner frame; // the scaled picture; pictures of its own size do not come here
    ScalerOwner scaler;
    int32_t failure = 0; // of the last encode(): as the encoder's, -1 also when the picture did not get that far

    void open();

    // `in`: a decoded picture with its pkt_pts. Returns whether it gave an access unit, which then lies in
    // the encoder's `output`. Different renditions may encode one picture at the same time, on threads of
    // their own.
    bool encode(AVFrame* in);

    // The same for those who keep the access unit: a copy of it, for the caller to free(), in the empty
    // `packet`. Returns 1 or 0.
    int write(AVFrame* in, AVPacket* packet);

    // For the encoder that there is, and for any that open() makes. Returns whether it takes them.
    bool setBitrate(int32_t bitsPerSecond);
    bool setFrameRate(float picturesPerSecond);

    void close();

    // Frees everything and gives up the settings but the id.
    void release();

private:
    void makeScaler(const AVFrame& in);
    bool needsNoScaling(const AVFrame& in) const;
};
