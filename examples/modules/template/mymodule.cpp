// Makes pictures brighter. Setting: "amount", -255 to 255 (0).

#include <kelvane/i420.h>
#include <kelvane/module.h>

#include <cstdlib>
#include <cstring>

namespace {

class MyModule : public CModuleProcessor {
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
        if (std::strcmp(key, "amount") != 0 || end == value || *end || number < -255 || number > 255)
            return 0;
        amount = static_cast<int>(number);
        return 1;
    }

    int Process(unsigned char* data, int size, int*) override {
        I420View picture;
        if (!I420Of(&picture, data, size, width, height)) return 1;
        for (int row = 0; row < picture.y.height; ++row) {
            unsigned char* const pixels = picture.y.data + long{row} * picture.y.width;
            for (int column = 0; column < picture.y.width; ++column) {
                const int brighter = pixels[column] + amount;
                pixels[column] = static_cast<unsigned char>(brighter < 0     ? 0
                                                            : brighter > 255 ? 255
                                                                             : brighter);
            }
        }
        return 1; // 0 drops the picture
    }

    void Close() override {}

private:
    int width = 0; // pixels
    int height = 0;
    int amount = 0;
};

} // namespace

unsigned int GetGuid() { return 0x6d796d6f; } // choose another
CModuleProcessor* CreateVideoProcessor() { return new MyModule; }
void DestroyVideoProcessor(CModuleProcessor* processor) { delete processor; }
