// A module that was built without our header: its table of operations is written out by hand, so that a call
// that reaches the wrong slot shows.

#include "modules/recording_module.h"

#include <cstdint>
#include <stdexcept>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

struct Processor {
    void* const* operations;
    int number;
};

ModuleRecord& record() {
    static ModuleRecord only;
    return only;
}

void throwIfTold(const std::string& name) {
    if (record().throwIn != name) return;
    if (record().throwWithoutMessage) throw 42;
    throw std::runtime_error(name + " fails\nbadly");
}

template <class... Arguments>
void called(const std::string& name, Arguments... arguments) {
    std::string call = name;
    (call.append(" ").append(std::to_string(arguments)), ...);
    record().calls.push_back(call);
    record().threads.insert(std::this_thread::get_id());
    throwIfTold(name);
}

void completeDestructor(Processor* self) { called("complete destructor", self->number); }

void deletingDestructor(Processor* self) {
    const int number = self->number;
    delete self;
    ++record().freed;
    called("delete", number);
}

unsigned int guid(Processor*) {
    called("GetGuid");
    return record().guid ? record().guid : MODULE_GUID;
}

int open(Processor*, unsigned short width, unsigned short height, unsigned char* mode, unsigned char* option1,
         unsigned char* option2, unsigned char* option3) {
    const int bytes[] = {*mode, *option1, *option2, *option3};
    *mode = *option1 = *option2 = *option3 = 99;
    called("Open", width, height, bytes[0], bytes[1], bytes[2], bytes[3]);
    return 0;
}

int reinit(Processor*, unsigned short width, unsigned short height) {
    called("Reinit", width, height);
    return 0;
}

int apply(Processor*, const char* key, const char* value) {
    called(std::string("Apply ") + key + "=" + value);
    throwIfTold("Apply");
    return -77;
}

int process(Processor*, unsigned char* data, int size, int* timestamp) {
    called("Process", size, *timestamp);
    return record().process ? record().process(data, size, timestamp) : 1;
}

void close(Processor* self) { called("Close", self->number); }

template <class Operation>
void* slot(Operation* operation) {
    return reinterpret_cast<void*>(operation);
}

void* const operations[] = {slot(completeDestructor),
                            slot(deletingDestructor),
                            slot(guid),
                            slot(open),
                            slot(reinit),
                            slot(apply),
                            slot(process),
                            slot(close)};

} // namespace

EXPORTED ModuleRecord* moduleRecord() { return &record(); }

#ifndef WITHOUT_GET_GUID
EXPORTED unsigned int GetGuid() {
    throwIfTold("exported GetGuid");
    return MODULE_GUID;
}
#endif

#ifndef WITHOUT_CREATE
EXPORTED void* CreateVideoProcessor() {
    if (record().refuseToCreate) return nullptr;
    throwIfTold("create");
    const int number = ++record().created;
    called("create", number);
    return new Processor{operations, number};
}
#endif

#ifndef WITHOUT_DESTROY
EXPORTED void DestroyVideoProcessor(Processor* processor) {
    const int number = processor->number;
    delete processor;
    ++record().freed;
    called("destroy", number);
}
#endif
