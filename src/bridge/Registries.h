#pragma once

// Registries turn the 64-bit handles that Java holds into engines. A handle is the engine's address: there is
// no table, so a look-up costs nothing on the media path, and a handle that was closed is not detected.

#include <cstdint>
#include <memory>
#include <new>

class AudioDecoder;
class AudioEncoder;
class MP3AudioDecoder;
class NOpusDecoder;
class NOpusEncoder;
class PcmResampler;
class VideoDecoder;
class VideoEncoder;
class NativeOpenH264Encoder;
class VideoProcessor;

// An Engine has a first field `handle`, a default constructor that cannot fail and a repeatable close().
template <class Engine>
class CodecRegistry {
public:
    // Null when there is no memory. The engine is made, not opened.
    Engine* NewCodec() const {
        auto* engine = new (std::nothrow) Engine;
        if (engine) engine->handle = reinterpret_cast<int64_t>(engine);
        return engine;
    }

    // Null for handle 0.
    Engine* GetCoder(int64_t handle) const { return reinterpret_cast<Engine*>(handle); }

    // Closes and frees the engine; always 0.
    int RemoveCodec(int64_t handle) const {
        if (Engine* engine = GetCoder(handle)) {
            engine->close();
            delete engine;
        }
        return 0;
    }
};

using AACDecoderContext = CodecRegistry<AudioDecoder>;
using AACEncoderContext = CodecRegistry<AudioEncoder>;
using MP3DecoderContext = CodecRegistry<MP3AudioDecoder>;
using OpusDecoderContext = CodecRegistry<NOpusDecoder>;
using OpusEncoderContext = CodecRegistry<NOpusEncoder>;
using ResamplerContext = CodecRegistry<PcmResampler>;
using AVCDecoderContext = CodecRegistry<VideoDecoder>;
using OpenH264EncoderContext = CodecRegistry<VideoEncoder>;
using NativeOpenH264EncoderContext = CodecRegistry<NativeOpenH264Encoder>;

// The pipeline's registry: it also removes the decoder and the encoder that a pipeline holds.
class VideoProcessorContext {
public:
    VideoProcessor* NewProcessor() const;
    VideoProcessor* GetProcessor(int64_t handle) const { return reinterpret_cast<VideoProcessor*>(handle); }
    // False for handle 0.
    bool RemoveProcessor(int64_t handle) const;
};

// Every source file has registry objects of its own; they hold no state, so all are interchangeable.
[[maybe_unused]] static AACDecoderContext aac_dec_ctx;
[[maybe_unused]] static AACEncoderContext aac_enc_ctx;
[[maybe_unused]] static AVCDecoderContext avc_dec_ctx;
[[maybe_unused]] static OpenH264EncoderContext avc_enc_ctx;
[[maybe_unused]] static MP3DecoderContext mp3_dec_ctx;
[[maybe_unused]] static ResamplerContext resampler_ctx;
[[maybe_unused]] static VideoProcessorContext proc_ctx;
[[maybe_unused]] static NativeOpenH264EncoderContext avc_opn_enc_ctx;

// What the Java classes' close does: frees the engine; false for handle 0.
template <class Engine>
bool closeCodec(const CodecRegistry<Engine>& registry, int64_t handle) {
    if (!registry.GetCoder(handle)) return false;
    registry.RemoveCodec(handle);
    return true;
}

// Owns an engine that another engine made through a registry.
template <class Engine>
struct RegistryDeleter {
    void operator()(Engine* engine) const { CodecRegistry<Engine>().RemoveCodec(engine->handle); }
};
template <class Engine>
using OwnedEngine = std::unique_ptr<Engine, RegistryDeleter<Engine>>;
