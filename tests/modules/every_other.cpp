// Drops every other picture and slows the rest down: by the milliseconds of the setting "delay" for each
// picture.

#include <kelvane/module.h>

#include <cstdlib>

namespace {

class EveryOther : public CModuleProcessor {
public:
    unsigned int GetGuid() override { return ::GetGuid(); }
    int Open(unsigned short, unsigned short, unsigned char*, unsigned char*, unsigned char*,
             unsigned char*) override {
        return 1;
    }
    int Reinit(unsigned short, unsigned short) override { return 1; }
    int Apply(const char*, const char* value) override {
        delay = std::atoi(value);
        return 1;
    }
    int Process(unsigned char*, int, int* timestamp) override {
        *timestamp = static_cast<int>(*timestamp + 1LL * delay * pictures);
        return pictures++ % 2 == 0;
    }
    void Close() override {}

private:
    int pictures = 0;
    int delay = 0;
};

} // namespace

unsigned int GetGuid() { return 0xe5e5e5e5; }
CModuleProcessor* CreateVideoProcessor() { return new EveryOther; }
void DestroyVideoProcessor(CModuleProcessor* processor) { delete processor; }
