// Takes the colour out of pictures. Setting: "strength", 0 (leaves them alone) to 100 (no colour, the
// default).

#include <kelvane/module.h>

#include <cstdlib>
#include <cstring>

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
        const long luma = long{width} * height;
        const long chroma = 2L * (width / 2) * (height / 2);
        // Without an announced size, this is pass-through mode, or the object was attached late: hands off.
        if (luma == 0 || luma + chroma > size) return 1;
        for (long i = luma; i < luma + chroma; ++i) {
            const int colour = data[i] - 128;
            data[i] = static_cast<unsigned char>(128 + colour * (100 - strength) / 100);
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
