// An OpenH264 with the records of 1.8 to 2.5, or with those of 2.6 where PSNR is defined. It writes over
// every byte of the records that it fills.

#include "support/fake_openh264.h"

#include <wels/codec_api.h>

#include <cstring>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

#ifdef PSNR
constexpr size_t parametersSize = 924, pictureSize = 80, layerSize = 56;
constexpr unsigned major = 2, minor = 7; // one too new, unless it is told otherwise
#else
constexpr size_t parametersSize = 920, pictureSize = 72, layerSize = 40;
constexpr unsigned major = 1, minor = 8;
#endif
constexpr size_t layersAt = 8, frameTypeAt = layersAt + 128 * layerSize, frameSize = frameTypeAt + 16;

FakeOpenH264 fake{{major, minor, 0, 0}, {}, {}, {}, {}};

template <class Value>
void put(void* record, size_t at, Value value) {
    std::memcpy(static_cast<char*>(record) + at, &value, sizeof value);
}

std::vector<uint8_t> copyOf(const void* record, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(record);
    return {bytes, bytes + size};
}

class FakeEncoder final : public ISVCEncoder {
public:
    int GetDefaultParams(SEncParamExt* parameters) override {
        fake.calls += 'D';
        for (size_t i = 0; i < parametersSize; ++i)
            put(parameters, i, static_cast<uint8_t>(i % 251 + 1));
        fake.defaults = copyOf(parameters, parametersSize);
        return 0;
    }
    int InitializeExt(const SEncParamExt* parameters) override {
        fake.calls += 'I';
        fake.parameters = copyOf(parameters, parametersSize);
        return 0;
    }
    int EncodeFrame(const SSourcePicture* picture, SFrameBSInfo* info) override {
        fake.calls += 'E';
        fake.picture = copyOf(picture, pictureSize);
        std::memset(static_cast<void*>(info), 0xA5, frameSize);
        put(info, 0, fakeLayers);
        for (int i = 0; i < fakeLayers; ++i) {
            const size_t layer = layersAt + static_cast<size_t>(i) * layerSize;
            std::memset(bytes[i], i, sizeof bytes[i]);
            put(info, layer + 16, i + 1);
            put(info, layer + 24, &nalSizes[0]);
            put(info, layer + 32, &bytes[i][0]);
        }
        put(info, frameTypeAt, videoFrameTypeP);
        put(info, frameTypeAt + 4, 30);
        return 0;
    }

    int Initialize(const SEncParamBase*) override { return 1; }
    int Uninitialize() override { return 1; }
    int EncodeParameterSets(SFrameBSInfo*) override { return 1; }
    int ForceIntraFrame(bool, int) override { return 1; }
    int SetOption(ENCODER_OPTION, void*) override { return 1; }
    int GetOption(ENCODER_OPTION, void*) override { return 1; }

private:
    uint8_t bytes[fakeLayers][5 * fakeLayers];
    int nalSizes[fakeLayers] = {5, 5, 5};
};

} // namespace

EXPORTED FakeOpenH264* fakeOpenH264() { return &fake; }

EXPORTED int WelsCreateSVCEncoder(ISVCEncoder** encoder) {
    fake.calls += 'C';
    *encoder = new FakeEncoder;
    return 0;
}

EXPORTED void WelsDestroySVCEncoder(ISVCEncoder* encoder) {
    fake.calls += 'X';
    delete static_cast<FakeEncoder*>(encoder);
}

EXPORTED OpenH264Version WelsGetCodecVersion() {
    fake.calls += 'V';
    return {fake.version[0], fake.version[1], fake.version[2], fake.version[3]};
}
