#pragma once

#include "bridge/JavaCall.h"
#include "bridge/Registries.h"
#include "transcoder/CoderOut.h"
#include "video/AVCDecoder.h"

#include <atomic>
#include <cstdint>
#include <memory>

// The multi-rendition transcoder: decodes one H.264 stream once and encodes every picture into each
// rendition.
class MIRVProcessor {
public:
    static constexpr uint32_t maxOutputs = 65536;
    static constexpr uint32_t maxPlaces = 1024;

    uint32_t count = 0;
    std::unique_ptr<CoderOut[]> outputs; // in the order in which their ids were first applied
    int64_t handle = reinterpret_cast<int64_t>(this);
    OwnedEngine<VideoDecoder> decoder;
    jmethodID receiveVideoMethod = nullptr;
    uint32_t timestamp = 0; // for the callbacks about the decoder's picture

    // Ends the processor, behind the calls that are at work on it: a listener may close it from its callback.
    void close(JNIEnv* env);

    // Around a call into the listener. leave() may free the processor.
    void enter() { ++users; }
    void leave(JNIEnv* env);

    // Returns `handle`, or 0 when the outputs cannot be made.
    int64_t open(uint32_t outputCount);

    // Sets one setting of the output with this id; a new id claims the first free output.
    void apply(uint32_t index, const char* key, const char* value);

    // Opens every output that has a size.
    void start();

    // Makes room for one more output, behind the others, which stay as they are. Returns its position, or -1
    // when there is no memory or there are maxOutputs.
    int32_t addOutput();

    // Decodes one access unit, which is not empty.
    int decode(const ArrayCopy& accessUnit, uint32_t time);

    // Decodes the next picture that is held back for reordering; the callbacks about it carry its own time.
    int drain();

    // Hands one decoded picture to every output; the listener gets each one's access unit, or null.
    void write(jobject listener, AVFrame* picture, JavaCall& java, uint32_t time);

    // Tells the listener, once for each output, that there is nothing for this input.
    void dropFrame(JavaCall& java, jobject listener, uint32_t time);

    // Hands the decoder's picture to one output; the listener gets its access unit, or null. Changes nothing
    // but that output, so that different outputs can be encoded on different threads at once. Returns 1 when
    // there is an access unit.
    int encode(JavaCall& java, jobject listener, uint32_t position) const;

    // The same without a listener.
    bool encode(CoderOut& output) const;

    // Makes places that keep() copies pictures to, in place of those that there were. Returns whether there
    // is memory for them; that of a picture comes with the first one.
    bool makePlaces(uint32_t places);

    // Copies the decoder's picture to a place, for encoders to take while decoding goes on: FFmpeg owns the
    // planes of its own, and the next call may write into them.
    bool keep(uint32_t place);

    // The picture that lies there; null when none does.
    AVFrame* kept(uint32_t place) const;

private:
    ~MIRVProcessor();

    CoderOut* claim(int32_t index);
    void findReceiveVideo(JavaCall& java, jobject listener);
    void forgetListener(JNIEnv* env);

    std::atomic<uint32_t> users = 1; // who opened it, and each call at work on it
    std::atomic<bool> closed = false;

    // The class that receiveVideoMethod belongs to, held so that the id stays valid: a call with an id of
    // some other class would end the virtual machine.
    jclass listenerClass = nullptr;

    uint32_t placeCount = 0;
    std::unique_ptr<FrameOwner[]> places;
};
