#pragma once

#include "bridge/Owners.h"
#include "video/OpenH264Records.h"

#include <cstdint>

// Destroys the library's encoder through the entry points of the loader.
struct OpenH264EncoderDeleter {
    void operator()(ISVCEncoder* encoder) const;
};

// Drives one OpenH264 encoder: one layer, one slice, no threads of its own. The configuration fields are set
// before open(); from then on setBitrate() and setFrameRate() change theirs.
class NativeOpenH264Encoder {
public:
    int64_t handle = 0;
    std::unique_ptr<ISVCEncoder, OpenH264EncoderDeleter> encoder;
    OpenH264Parameters param{};
    uint32_t width = 0; // pixels
    uint32_t height = 0;
    uint32_t fps = 15;        // pictures per second; open() turns 0 and more than 60 into 30
    int32_t bitrate = 200;    // bits per second
    int32_t maxBitrate = 300; // carried only: the encoder's maximum is its target
    int32_t encMode = 0;      // rate control by bit rate when 0, otherwise by quality
    int32_t profile = 0;      // entropy coding: 0 CAVLC, 1 CABAC
    int32_t maxQp = 0;        // largest and smallest quantiser; 0 takes the library's
    int32_t minQp = 0;
    uint32_t keyInterval = 60;  // GOP length in pictures; open() turns 0 into 4 s and more than 480 into 8 s
    float steeredRate = 0;      // pictures per second; 0 while `fps` holds
    bool keysBySeconds = false; // the GOP length is to be 4 s at any rate
    int32_t status = 1;         // 0 configured, 1 no library encoder, -1 parameters refused
    int32_t failure = 0;  // 0 when the last picture was encoded or the encoder skipped it; otherwise what the
                          // library answered, or -1 when it threw or memory was missing
    bool renewed = false; // reports nothing more on the process's output, debug lines aside
    uint64_t frameCount = 0; // pictures that produced output
    int32_t pictureType = 0; // of the last of them, in OpenH264's numbers (EVideoFrameType)
    int32_t debug = 0;       // non-zero prints diagnostics
    MallocBuffer output;     // NAL units of the last picture, until the next encode() or close()
    int32_t outputSize = 0;  // bytes

    // Leaves its outcome in `status`.
    void open();

    // `picture`: packed I420 of the engine's size; `timestamp` in milliseconds. Returns 1 when `output` holds
    // an access unit, 0 when there is none (too short a picture, a skipped picture, an error).
    int encode(unsigned char* picture, int size, unsigned int timestamp);

    // The same for planes that lie anywhere, `strides` bytes from row to row; they are only read.
    int encode(uint8_t* const planes[3], const int strides[3], unsigned int timestamp);

    // Makes the next picture that is encoded a key frame, from which the GOP length is counted anew. Returns
    // 1 when the library takes the request.
    int requestKey();

    // From the next picture on, without another encoder; kept for the one that renew() makes.
    // `picturesPerSecond` is cut to what OpenH264 takes, 1 to 60. Returns whether the library takes it, or
    // there is none yet to take it.
    bool setBitrate(int32_t bitsPerSecond);
    bool setFrameRate(float picturesPerSecond);

    // The average over the last picture's macroblocks; 0 when the library does not tell.
    int averageQuantiser() const;

    // Makes the library's encoder anew, with the same settings: OpenH264 encodes nothing more after a picture
    // that failed. Its first picture is a key frame. Returns whether there is one that encodes.
    bool renew();

    void close();

private:
    template <class Frame>
    int encodeInto(const OpenH264Picture& source);
    bool isOpen() const { return encoder && status == 0; }
    bool set(ENCODER_OPTION option, void* value);
    void chooseTrace();

    OpenH264Layout layout = OpenH264Layout::upTo25; // of the library's records
};
