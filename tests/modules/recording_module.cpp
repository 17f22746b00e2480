// A module that was built without our header: its table of operations is written out by hand, so that a call
// that reaches the wrong slot shows.

#include "modules/recording_module.h"

#include <sstream>
#include <stdexcept>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

struct Processor {
    void* const* operations;
};

ModuleRecord record;

template <class... Arguments>
void called(const std::string& name, Arguments... arguments) {
    std::ostringstream call;
    call << name;
    ((call << " " << arguments), ...);
    record.calls.push_back(call.str());
    if (record.throwIn == name) throw std::runtime_error(name + " fails\nbadly");
}

void deletingDestructor(Processor* self) {
    delete self;
    --record.live;
    called("delete");
}

unsigned int guid(Processor*) {
    called("GetGuid");
    return MODULE_GUID;
}

int open(Processor*, unsigned short width, unsigned short height, unsigned char* mode, unsigned char* option1,
         unsigned char* option2, unsigned char* option3) {
    called("Open", width, height, int{*mode}, int{*option1}, int{*option2}, int{*option3});
    *mode = 1; // nobody may see this
    return 0;
}

int reinit(Processor*, unsigned short width, unsigned short height) {
    called("Reinit", width, height);
    return 0;
}

int apply(Processor*, const char* key, const char* value) {
    called("Apply", key, value);
    return -77;
}

int process(Processor*, unsigned char* data, int size, int* timestamp) {
    called("Process", size, *timestamp);
    return record.process ? record.process(data, size, timestamp) : 1;
}

void close(Processor*) { called("Close"); }

template <class Operation>
void* slot(Operation* operation) {
    return reinterpret_cast<void*>(operation);
}

// Nobody may call the complete-object destructor, which is the first.
void* const operations[] = {
    nullptr,    slot(deletingDestructor), slot(guid), slot(open), slot(reinit), slot(apply), slot(process),
    slot(close)};

} // namespace

EXPORTED ModuleRecord* moduleRecord() { return &record; }

EXPORTED unsigned int GetGuid() {
    if (record.throwIn == "exported GetGuid") throw 42;
    return MODULE_GUID;
}

EXPORTED void* CreateVideoProcessor() {
    called("create");
    ++record.live;
    return new Processor{operations};
}

EXPORTED void DestroyVideoProcessor(Processor* processor) {
    delete processor;
    --record.live;
    called("destroy");
}
