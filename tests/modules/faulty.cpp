// A module with the one fault that FAULT names, each of which authors have made.

#ifdef OTHER_INTERFACE
#define GetModuleInterface interfaceOfTheHeader
#endif
#include <kelvane/module.h>
#ifdef OTHER_INTERFACE
#undef GetModuleInterface
KELVANE_MODULE_ENTRY unsigned int GetModuleInterface() { return OTHER_INTERFACE; }
#endif

#include <kelvane/i420.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

extern "C" unsigned int nowhereDefined();

namespace {

#define TEXT_OF(name) #name
#define TEXT(name) TEXT_OF(name)
constexpr std::string_view fault = TEXT(FAULT);

int sharedWidth, sharedHeight;
unsigned char* keptPicture;

class Faulty : public CModuleProcessor {
public:
    Faulty() { keptPicture = nullptr; }
    unsigned int GetGuid() override { return ::GetGuid() + (fault == "two_guids"); }
    int Open(unsigned short newWidth, unsigned short newHeight, unsigned char* mode, unsigned char*,
             unsigned char*, unsigned char*) override {
        if (fault == "null_in_open") std::puts("last words"), mode = nullptr;
        if (fault == "null_in_open") *static_cast<unsigned char volatile*>(mode) = 1;
        if (fault == "leaks_in_close") lines = static_cast<unsigned char*>(std::malloc(1000));
        return Reinit(newWidth, newHeight);
    }
    int Reinit(unsigned short newWidth, unsigned short newHeight) override {
        width = sharedWidth = newWidth;
        height = sharedHeight = newHeight;
        return 1;
    }
    int Apply(const char* key, const char* value) override {
        if (std::strcmp(key, "depth") != 0 || fault == "refuses") return 0;
        isSet = true;
        if (fault == "throws_in_apply") throw std::invalid_argument("stoi\nfails");
        char text[16];
        if (fault == "fixed_buffer") std::strcpy(text, value);
        if (fault == "writes_value") const_cast<char*>(value)[0] = ' ';
        return std::atoi(fault == "fixed_buffer" ? text : value) >= 0;
    }
    int Process(unsigned char* data, int size, int* timestamp) override {
        if (fault == "late") std::memset(data, 0, 100);
        if (fault == "unset" && !isSet) const_cast<unsigned char volatile*>(data)[size] = 1;
        I420View picture;
        if (!I420Of(&picture, data, size, width, height)) return 1;
        unsigned char volatile* bytes = data;
        if (fault == "overrun") bytes[size] = 1;
        if (fault == "far_overrun") std::memset(data + size, 0, 64);
        if (fault == "underrun") bytes[-1] = 1;
        if (fault == "overread")
            for (int i = 0; i < size; ++i)
                bytes[i] = bytes[i + picture.y.width];
        if (fault == "rgb") std::memset(data, 0, 3ul * width * height);
        if (fault == "keeps_picture") {
            if (keptPicture) keptPicture[0] = 1;
            keptPicture = data;
        }
        if (fault == "long_timestamp") *reinterpret_cast<long*>(timestamp) += 1;
        if (fault == "throws") throw std::runtime_error("no table for this picture\nat all");
        if (fault == "divides") bytes[0] = static_cast<unsigned char>(size / picture.u.width);
        if (fault == "deep") {
            unsigned char volatile deepest[4 << 20];
            for (size_t i = sizeof deepest; i >= 4096; i -= 4096)
                deepest[i - 1] = 1;
        }
        if (fault == "grows") history.emplace_back(100);
        if (fault == "shared_state") data[0] = static_cast<unsigned char>(sharedWidth + sharedHeight);
        if (fault == "ends_process") std::exit(0);
        if (fault == "never_returns")
            for (unsigned char volatile forever = 1; forever;) {
            }
        return 1;
    }
    void Close() override { std::free(std::exchange(lines, nullptr)); }

private:
    int width = 0; // pixels
    int height = 0;
    bool isSet = false;
    unsigned char* lines = nullptr;
    std::list<std::vector<char>> history;
};

Faulty* theOnlyOne;

} // namespace

unsigned int GetGuid() {
    if constexpr (fault == "undefined") return nowhereDefined();
    return fault == "no_guid" ? 0 : 0xfa017;
}

CModuleProcessor* CreateVideoProcessor() {
    if (fault == "no_object") return nullptr;
    if (fault == "one_object") return theOnlyOne ? theOnlyOne : theOnlyOne = new Faulty;
    return new Faulty;
}

void DestroyVideoProcessor(CModuleProcessor* processor) {
    if (fault == "not_destroyed" || fault == "one_object") return;
    unsigned char* volatile inside = reinterpret_cast<unsigned char*>(processor) + 16;
    if (fault == "frees")
        std::free(inside);
    else
        delete processor;
}
