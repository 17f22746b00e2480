// Makes regions unrecognisable, faces for instance. Settings: "region" with "x,y,width,height" in pixels adds
// a region, which may lie outside the picture (64 at most); "clear" removes all of them, whatever its value;
// "block", 2 to 256 pixels, is the side of the mosaic's squares (16).

#include <kelvane/i420.h>
#include <kelvane/module.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <vector>

namespace {

struct Region {
    int left, top, right, bottom; // right and bottom are outside
};

// Reads `count` numbers of at most 65535 either way, with commas between them.
bool parse(const char* text, int* numbers, int count) {
    for (int i = 0; i < count; ++i) {
        char* end = nullptr;
        const long number = std::strtol(text, &end, 10);
        if (end == text || *end != (i + 1 < count ? ',' : '\0') || number < -65535 || number > 65535)
            return false;
        numbers[i] = static_cast<int>(number);
        text = end + 1;
    }
    return true;
}

// Gives each square of a plane's region its mean value.
void pixelate(const I420Plane& plane, Region region, int block) {
    const int width = plane.width;
    const int right = std::min(region.right, width), bottom = std::min(region.bottom, plane.height);
    for (int top = std::max(region.top, 0); top < bottom; top += block) {
        for (int left = std::max(region.left, 0); left < right; left += block) {
            const int columns = std::min(block, right - left), rows = std::min(block, bottom - top);
            unsigned char* const square = plane.data + top * width + left;
            int sum = 0;
            for (int row = 0; row < rows; ++row)
                sum = std::accumulate(square + row * width, square + row * width + columns, sum);
            for (int row = 0; row < rows; ++row)
                std::memset(square + row * width, sum / (rows * columns), static_cast<std::size_t>(columns));
        }
    }
}

class Mosaic : public CModuleProcessor {
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
        int n[4];
        if (std::strcmp(key, "clear") == 0)
            regions.clear();
        else if (std::strcmp(key, "block") == 0 && parse(value, n, 1) && n[0] >= 2 && n[0] <= 256)
            block = n[0];
        else if (std::strcmp(key, "region") == 0 && parse(value, n, 4) && n[2] > 0 && n[3] > 0 &&
                 regions.size() < 64)
            regions.push_back({n[0], n[1], n[0] + n[2], n[1] + n[3]});
        else
            return 0;
        return 1;
    }
    int Process(unsigned char* data, int size, int*) override {
        I420View picture;
        if (!I420Of(&picture, data, size, width, height)) return 1;
        for (const Region& r : regions) {
            pixelate(picture.y, r, block);
            const Region half = {r.left / 2, r.top / 2, (r.right + 1) / 2, (r.bottom + 1) / 2};
            pixelate(picture.u, half, block / 2);
            pixelate(picture.v, half, block / 2);
        }
        return 1;
    }
    void Close() override { regions.clear(); }

private:
    int width = 0; // pixels
    int height = 0;
    int block = 16;
    std::vector<Region> regions;
};

} // namespace

unsigned int GetGuid() { return 0x6d6f7361; }
CModuleProcessor* CreateVideoProcessor() { return new Mosaic; }
void DestroyVideoProcessor(CModuleProcessor* processor) { delete processor; }
