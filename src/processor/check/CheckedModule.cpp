#include "processor/check/CheckedModule.h"

#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

std::string text(PictureSize size) { return std::to_string(size.width) + "x" + std::to_string(size.height); }

std::string firstLine(std::string_view text) {
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

std::string inQuotes(std::string_view text) {
    constexpr size_t longest = 40;
    std::string shown;
    for (const char c : text.substr(0, longest))
        shown += c < ' ' || c > '~' ? '.' : c;
    return "'" + shown + "'" +
           (text.size() > longest ? "... (" + std::to_string(text.size()) + " bytes)" : "");
}

bool CheckedModule::load() {
    // A path, which the dynamic loader takes as it is instead of searching for it.
    const std::string file = std::filesystem::absolute(options.module).lexically_normal();
    std::printf("module %s\n", file.c_str());
    findings.begin("loads with all its symbols");
    symbols.emplace(file);
    if (!options.plain) reportCrashes(file, *symbols, options.seconds);
    std::string reason;
    runLikeJava({[&] {
        const CurrentCall current("loading, which runs the static initialisers", {});
        library = dlopen(file.c_str(), RTLD_NOW);
        if (!library) reason = dlerror(); // which each thread has of its own
    }});
    if (library) return true;
    findings.fault("it cannot be loaded: " + reason);
    constexpr std::string_view undefined = "undefined symbol: ";
    const size_t found = reason.find(undefined);
    if (found != std::string::npos) {
        const size_t start = found + undefined.size();
        const std::string symbol = reason.substr(start, reason.find_first_of(", \t\n(", start) - start);
        findings.note(demangled(symbol.c_str()) +
                      " is used and nowhere defined: is a source or a library missing? A server loads "
                      "such a module and ends at the first use; link with -Wl,--no-undefined");
    }
    return false;
}

bool CheckedModule::resolve() {
    findings.begin("entry points, interface and GUID");
    const auto find = [&](const char* name, const char* asCpp) {
        void* const address = dlsym(library, name);
        if (!address)
            findings.fault(std::string(name) + " is not exported: " +
                           (dlsym(library, asCpp)
                                ? "it has a C++ name; include kelvane/module.h or declare it extern \"C\""
                                : "it is not defined, or it is hidden"));
        return address;
    };
    getGuid = reinterpret_cast<decltype(getGuid)>(find("GetGuid", "_Z7GetGuidv"));
    create = reinterpret_cast<decltype(create)>(find("CreateVideoProcessor", "_Z20CreateVideoProcessorv"));
    destroy = reinterpret_cast<decltype(destroy)>(
        find("DestroyVideoProcessor", "_Z21DestroyVideoProcessorP16CModuleProcessor"));
    if (!getGuid || !create || !destroy) return false;
    if (const auto getInterface =
            reinterpret_cast<unsigned int (*)()>(dlsym(library, "GetModuleInterface"))) {
        const unsigned int number = call("GetModuleInterface", {}, getInterface);
        if (number != KELVANE_MODULE_INTERFACE) {
            findings.fault("it is built for interface " + std::to_string(number) +
                           ", and a server of interface " + std::to_string(KELVANE_MODULE_INTERFACE) +
                           " refuses it: build it with that server's kelvane/module.h");
            return false; // its operations may be any
        }
    } else {
        findings.note(
            "it does not tell its interface: it was built without kelvane/module.h, or with an older one");
    }
    guid = call("GetGuid", {}, getGuid);
    if (guid == 0)
        findings.fault("GetGuid returned 0, which Java takes for a module that could not be loaded");
    const unsigned int again = call("GetGuid", {}, getGuid);
    if (guid != again)
        findings.fault("GetGuid returned " + std::to_string(guid) + " and then " + std::to_string(again) +
                       ": a module has one GUID");
    std::printf("GUID   %u (%#x)\n", guid, guid);
    return true;
}

namespace {

// Memory that may not be there.
bool readMemory(const void* address, void* into, size_t size) {
    const iovec local{into, size}, remote{const_cast<void*>(address), size};
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

bool isCode(uintptr_t address) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long start = 0, end = 0;
        char rights[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, rights) == 3 && address >= start &&
            address < end)
            return rights[2] == 'x';
    }
    return false;
}

} // namespace

bool CheckedModule::slotsAreFunctions(const CModuleProcessor* object) {
    constexpr const char* slots[] = {"the destructor in place",
                                     "the deleting destructor",
                                     "GetGuid",
                                     "Open",
                                     "Reinit",
                                     "Apply",
                                     "Process",
                                     "Close"};
    const void* table = nullptr;
    uintptr_t functions[std::size(slots)] = {};
    if (!readMemory(object, &table, sizeof table) || !readMemory(table, functions, sizeof functions)) {
        findings.fault("what CreateVideoProcessor returned is no object with a table of operations");
        return false;
    }
    for (size_t i = 1; i < std::size(slots); ++i) { // the first is never called
        if (isCode(functions[i])) continue;
        findings.fault("slot " + std::to_string(i) + " of the object's table, " + slots[i] +
                       ", is no function: the class has other operations than kelvane/module.h says");
        return false;
    }
    return true;
}

Stream::Stream(CheckedModule& owner) : module(owner) {
    object = module.call("CreateVideoProcessor", {}, module.create);
    if (!object) module.findings.fault("CreateVideoProcessor returned null");
}

unsigned int Stream::guid() {
    return module.call("GetGuid of the object", {}, [&] { return object->GetGuid(); });
}

void Stream::open(PictureSize newSize, Side side) {
    if (!object) return;
    size = newSize;
    GuardedBuffer configuration("the configuration bytes", 4, 1, side);
    const unsigned char given[] = {3, 1, 0, 1};
    std::copy(given, given + 4, configuration.data);
    module.call("Open", size, [&] {
        unsigned char* const bytes = configuration.data;
        return object->Open(width(), height(), bytes, bytes + 1, bytes + 2, bytes + 3);
    });
}

void Stream::reinit(PictureSize newSize) {
    if (!object) return;
    size = newSize;
    module.call("Reinit", size, [&] { return object->Reinit(width(), height()); });
}

int Stream::apply(const std::string& key, const std::string& value) {
    if (!object) return 0;
    GuardedBuffer keyText("the key of a setting", key.size() + 1, 1, Side::end);
    GuardedBuffer valueText("the value of a setting", value.size() + 1, 1, Side::end);
    std::memcpy(keyText.data, key.c_str(), keyText.size);
    std::memcpy(valueText.data, value.c_str(), valueText.size);
    keyText.makeReadOnly();
    valueText.makeReadOnly();
    const std::string name = "Apply of " + inQuotes(key) + " = " + inQuotes(value);
    return module.call(name.c_str(), size, [&] {
        return object->Apply(reinterpret_cast<char*>(keyText.data), reinterpret_cast<char*>(valueText.data));
    });
}

void Stream::applySettings() {
    for (const auto& [key, value] : module.options.settings) {
        const int result = apply(key, value);
        if (result <= 0)
            module.findings.fault("the setting " + inQuotes(key) + " = " + inQuotes(value) +
                                  " is refused: Apply returned " + std::to_string(result));
    }
}

int Stream::process(Bytes& picture, int& time, Side side, double* milliseconds) {
    if (!object) return 0;
    const char* const name = isPassThrough ? "the access unit" : "the picture";
    GuardedBuffer data(name, picture.size(), 16, side);
    GuardedBuffer timestamp("the timestamp", sizeof time, alignof(int), side);
    std::copy(picture.begin(), picture.end(), data.data);
    std::memcpy(timestamp.data, &time, sizeof time);
    const auto started = std::chrono::steady_clock::now();
    const int result = module.call(isPassThrough ? "Process in pass-through mode" : "Process", size, [&] {
        return object->Process(data.data, static_cast<int>(picture.size()),
                               reinterpret_cast<int*>(timestamp.data));
    });
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - started;
    if (milliseconds) *milliseconds = took.count();
    if (data.isDamagedAround())
        module.findings.fault(
            "Process, pictures of " + text(size) + ": writes outside of " + name +
            (side == Side::end ? ", less than 16 bytes behind its end" : ", behind its end"));
    if (timestamp.isDamagedAround()) module.findings.fault("Process writes outside of the timestamp, an int");
    std::copy(data.data, data.data + picture.size(), picture.begin());
    std::memcpy(&time, timestamp.data, sizeof time);
    return result;
}

void Stream::processOne(Side side) {
    Bytes picture = syntheticPicture(size, pictures);
    int time = pictures++ * millisecondsPerPicture;
    process(picture, time, side);
}

void Stream::closeAndDelete() {
    CModuleProcessor* const old = std::exchange(object, nullptr);
    if (!old) return;
    module.call("Close", size, [&] { old->Close(); });
    module.call("the deleting destructor", size, [&] { delete old; });
}

void Stream::destroy() {
    if (CModuleProcessor* const old = std::exchange(object, nullptr))
        module.call("DestroyVideoProcessor", size, [&] { module.destroy(old); });
}
