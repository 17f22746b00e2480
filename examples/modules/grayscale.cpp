// Takes the colour out of pictures. Setting: "strength", 0 (leaves them alone) to 100 (no colour, the
// default).

#include <kelvane/i420.h>
#include <kelvane/module.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

class Grayscale : public CModuleProcessor {
public:
    unsigned int GetGuid() override { return ::GetGuid(); }

    int Open(unsigned short newWidth, unsigned short newHeight, unsigned char*, unsigned char*,
             unsigned char*, unsigned char*) override {
        return Reinit(newWidth, newHeight);
    }

    int Reinit(unsigned short newWidth, unsigned short newHeight) override {
        width = newWidth;
        height = newHeight;
        return 1;
    }

    int Apply(const char* key, const char* value) override {
        char* end = nullptr;
        const long number = std::strtol(value, &end, 10);
        if (std::strcmp(key, "strength") != 0 || end == value || *end || number < 0 || number > 100) return 0;
        strength = static_cast<int>(number);
        return 1;
    }

    int Process(unsigned char* data, int size, int*) override {
        I420View picture;
        if (!I420Of(&picture, data, size, width, height)) return 1;
        for (const I420Plane& chroma : {picture.u, picture.v}) {
            for (long i = 0; i < long{chroma.width} * chroma.height; ++i) {
                const int colour = chroma.data[i] - 128;
                chroma.data[i] = static_cast<unsigned char>(128 + colour * (100 - strength) / 100);
            }
        }
        return 1;
    }

    void Close() override {}

private:
    int width = 0; // pixels
    int height = 0;
    int strength = 100; // percent
};

} // namespace

unsigned int GetGuid() { return 0x67726179; }

CModuleProcessor* CreateVideoProcessor() { return new Grayscale; }

void DestroyVideoProcessor(CModuleProcessor* processor) { delete processor; }
