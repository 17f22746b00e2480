#pragma once

#include "bridge/Registries.h"
#include "processor/ModuleLoader.h"
#include "video/AVCDecoder.h"
#include "video/OpenH264Encoder.h"

#include <cstdint>

// The processing pipeline: decodes an H.264 stream, has a module work on every picture and encodes what it
// keeps; in pass-through mode the module works on the access units themselves.
class VideoProcessor {
public:
    static constexpr uint8_t passThroughMode = 1;

    int64_t handle = 0;
    OwnedEngine<VideoEncoder> encoder; // of the present picture size; null until the first picture
    OwnedEngine<VideoDecoder> decoder;
    CModuleProcessor* processor = nullptr; // destroyed by brew() and unbrew(), through the module
    MallocBuffer output;                   // pending for read()
    int32_t outputSize = 0;                // bytes; 0 while nothing is pending
    int32_t outputTimestamp = 0;
    int32_t bitRate = 0; // of every encoder, bits per second
    int32_t frameRate = 0;
    uint8_t mode = 3; // this and the options are for the module, too
    uint8_t option1 = 1;
    uint8_t option2 = 0;
    uint8_t option3 = 1;
    ModuleCaller callModule; // of the attached processor
    int32_t failure = 0; // of the last picture: as the encoder's; 0 also when there was none or the module dropped it

    // Attaches the module with this GUID in place of the one attached, if any.
    void brew(unsigned int guid);

    // Destroys the attached processor through the entry point of its module.
    void unbrew();

    // Decodes one access unit, processes its picture and makes the result pending. Returns 1 for a picture
    // that was encoded or dropped by the module, 0 when none was decoded or the picture yielded nothing, -1
    // when the decoder rejected the input. `newOutput` becomes the bytes of the new output, 0 when a picture
    // was decoded but yielded nothing, and is left alone otherwise.
    int process(signed char* data, int size, uint32_t timestamp, int& newOutput);

    // The same for the next picture that is held back for reordering, with its own time; 0 when there is
    // none.
    int drain(int& newOutput);

    // Encodes the picture that failed once more, as the module left it. As process().
    int retry(int& newOutput);

    // Of the encoder that there is, and of those to come, as VideoEncoder's. In pass-through mode there is none.
    bool requestKey();
    bool setBitRate(int32_t bitsPerSecond);

    // Makes the access unit itself pending.
    void passThrough(MallocBuffer data, int size, uint32_t timestamp);

    void close();

private:
    struct UnencodedPicture {
        MallocBuffer packed;
        int size;
        uint32_t timestamp;
        int32_t moduleTime;
    };
    UnencodedPicture unencoded{}; // kept from a picture that failed to the next call

    void makeEncoder(const AVFrame& picture);
    void fitEncoder(const AVFrame& picture);
    int processPicture(uint32_t timestamp, int& newOutput);
    int encodePicture(int& newOutput);
    void forgetPicture();
};
