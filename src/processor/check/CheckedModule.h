#pragma once

#include "processor/check/CrashReport.h"
#include "processor/check/GuardedBuffer.h"
#include "processor/check/ModuleCheck.h"
#include "processor/check/PictureFile.h"

#include <kelvane/module.h>

#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

std::string text(PictureSize size); // 640x360
// The first of the lines that a module has put into a text.
std::string firstLine(std::string_view text);
// The beginning of a hostile value, fit to be printed.
std::string inQuotes(std::string_view text);

// What was found, printed as it is found; a fault that comes again is only counted.
class Findings {
public:
    // A step is fine unless a fault follows before the next step begins.
    void begin(const char* newStep) {
        end();
        step = newStep;
        isFine = true;
    }
    void end() {
        if (step && isFine) std::printf("ok     %s\n", step);
        step = nullptr;
    }
    void fault(const std::string& text) {
        const std::lock_guard lock(adding);
        isFine = false;
        if (times[text]++ == 0) std::printf("FAULT: %s\n", text.c_str());
    }
    void note(const std::string& text) {
        const std::lock_guard lock(adding);
        if (notes.insert(text).second) std::printf("note:  %s\n", text.c_str());
    }
    void skip(const std::string& reason) {
        step = nullptr;
        note(reason);
    }
    int faults() const { return static_cast<int>(times.size()); }
    void sumUp() {
        end();
        for (const auto& [text, count] : times)
            if (count > 1) std::printf("%d times: %s\n", count, text.c_str());
        if (times.empty())
            std::printf("no fault found\n");
        else
            std::printf("%d fault%s found\n", faults(), faults() == 1 ? "" : "s");
    }

private:
    const char* step = nullptr;
    bool isFine = true;
    std::map<std::string, int> times; // faults
    std::set<std::string> notes;
    std::mutex adding;
};

// The module's library and its entry points. It stays open, as in a server.
class CheckedModule {
public:
    explicit CheckedModule(const ModuleCheckOptions& all) : options(all) {}

    // False, after a fault, where the next step makes no sense.
    bool load();
    bool resolve();
    // A module of another header has other operations in the slots of its objects, or none.
    bool slotsAreFunctions(const CModuleProcessor* object);

    // Calls the module, whose exceptions are faults and count as a result of 0, as in the pipeline.
    template <class Operation>
    auto call(const char* name, PictureSize announced, Operation operation) -> decltype(operation()) {
        const CurrentCall current(name, announced);
        try {
            return operation();
        } catch (const std::exception& exception) {
            findings.fault(std::string(name) + " throws: " + firstLine(exception.what()));
        } catch (...) {
            findings.fault(std::string(name) + " throws something that is no std::exception");
        }
        return decltype(operation())();
    }

    const ModuleCheckOptions& options;
    Findings findings;
    unsigned int (*getGuid)() = nullptr;
    CModuleProcessor* (*create)() = nullptr;
    void (*destroy)(CModuleProcessor*) = nullptr;
    unsigned int guid = 0;

private:
    std::optional<ModuleSymbols> symbols;
    void* library = nullptr;
};

// An object of the module in a pipeline of its own. Each argument that points somewhere lies in guarded
// memory.
class Stream {
public:
    using Side = GuardedBuffer::Side;

    explicit Stream(CheckedModule& module);
    ~Stream() { destroy(); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    unsigned int guid();
    void open(PictureSize newSize, Side side = Side::end);
    void reinit(PictureSize newSize);
    int apply(const std::string& key, const std::string& value);
    void applySettings(); // the caller's, which the module is to take
    // Changes picture (or access unit) and time as the module does.
    int process(Bytes& picture, int& time, Side side = Side::end, double* milliseconds = nullptr);
    // A new picture of our own, of the size announced last.
    void processOne(Side side = Side::end);
    void closeAndDelete(); // as a pipeline that replaces its module
    void destroy();        // as a pipeline that is closed

    CModuleProcessor* object; // null: none was made, or it is destroyed
    bool isPassThrough = false;
    PictureSize size;

private:
    unsigned short width() const { return static_cast<unsigned short>(size.width); }
    unsigned short height() const { return static_cast<unsigned short>(size.height); }

    CheckedModule& module;
    int pictures = 0;
};

// Time between two pictures of a stream.
constexpr int millisecondsPerPicture = 40;
