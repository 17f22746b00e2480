#pragma once

#include "bridge/JavaCall.h"
#include "bridge/Registries.h"
#include "transcoder/CoderOut.h"
#include "video/AVCDecoder.h"

#include <cstdint>
#include <memory>

// The multi-rendition transcoder: decodes one H.264 stream once and encodes every picture into each
// rendition.
class MIRVProcessor {
public:
    static constexpr uint32_t maxOutputs = 65536;

    uint32_t count = 0;
    std::unique_ptr<CoderOut[]> outputs; // in the order in which their ids were first applied
    int64_t handle = reinterpret_cast<int64_t>(this);
    OwnedEngine<VideoDecoder> decoder;
    jmethodID receiveVideoMethod = nullptr;

    ~MIRVProcessor();

    // Returns `handle`, or 0 when the outputs cannot be made.
    int64_t open(uint32_t outputCount);

    // Sets one setting of the output with this id; a new id claims the first free output.
    void apply(uint32_t index, const char* key, const char* value);

    // Opens every output that has a size.
    void start();

    // Hands one decoded picture to every output; the listener gets each one's access unit, or null.
    void write(jobject listener, AVFrame* picture, JavaCall& java, uint32_t timestamp);

    // Tells the listener, once for each output, that there is nothing for this input.
    void dropFrame(JavaCall& java, jobject listener, uint32_t timestamp);

    // Gives back what is held in the virtual machine; to be called before the destructor.
    void forgetListener(JNIEnv* env);

private:
    CoderOut* claim(int32_t index);
    void findReceiveVideo(JavaCall& java, jobject listener);
    void receiveVideo(JavaCall& java, jobject listener, int32_t index, uint32_t timestamp, jobject data);

    // The class that receiveVideoMethod belongs to, held so that the id stays valid: a call with an id of
    // some other class would end the virtual machine.
    jclass listenerClass = nullptr;
};
