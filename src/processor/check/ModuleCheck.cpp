#include "processor/check/ModuleCheck.h"

#include "processor/check/GuardedBuffer.h"
#include "processor/check/PictureFile.h"

#include <kelvane/module.h>

#include <dlfcn.h>
#include <malloc.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>

namespace {

using Side = GuardedBuffer::Side;

constexpr int millisecondsPerPicture = 40;
constexpr int filling = 0xa5; // of memory that malloc gives, for nothing to be 0 by chance

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

std::string firstLine(std::string_view text) {
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

// The beginning of a hostile value, fit to be printed.
std::string inQuotes(std::string_view text) {
    constexpr size_t longest = 40;
    std::string shown;
    for (const char c : text.substr(0, longest))
        shown += c < ' ' || c > '~' ? '.' : c;
    return "'" + shown + "'" +
           (text.size() > longest ? "... (" + std::to_string(text.size()) + " bytes)" : "");
}

std::string text(PictureSize size) { return std::to_string(size.width) + "x" + std::to_string(size.height); }

class ModuleCheck {
public:
    explicit ModuleCheck(const ModuleCheckOptions& all) : options(all) {}
    int run();

private:
    friend class Stream;

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

    bool load();
    bool resolve();
    bool checkObjects();
    bool slotsAreFunctions(const CModuleProcessor* object);
    void processInput();
    void checkSizes();
    void checkLateAttachment();
    void checkPassThrough();
    void checkSettings();
    void checkIndependence();
    void checkMemory();

    const ModuleCheckOptions& options;
    Findings findings;
    std::string file;
    std::optional<ModuleSymbols> symbols;
    void* library = nullptr; // stays open, as in a server
    unsigned int (*getGuid)() = nullptr;
    CModuleProcessor* (*create)() = nullptr;
    void (*destroy)(CModuleProcessor*) = nullptr;
    unsigned int guid = 0;
    PictureSize size{640, 360}; // of the pictures to process
};

// An object of the module in a pipeline of its own. Each argument that points somewhere lies in guarded
// memory.
class Stream {
public:
    explicit Stream(ModuleCheck& owner) : check(owner) {
        object = check.call("CreateVideoProcessor", {}, check.create);
        if (!object) check.findings.fault("CreateVideoProcessor returned null");
    }
    ~Stream() { destroy(); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    unsigned int guid() {
        return check.call("GetGuid of the object", {}, [&] { return object->GetGuid(); });
    }
    void open(PictureSize newSize, Side side = Side::end) {
        if (!object) return;
        size = newSize;
        GuardedBuffer configuration("the configuration bytes", 4, 1, side);
        const unsigned char given[] = {3, 1, 0, 1};
        std::copy(given, given + 4, configuration.data);
        check.call("Open", size, [&] {
            unsigned char* const bytes = configuration.data;
            return object->Open(width(), height(), bytes, bytes + 1, bytes + 2, bytes + 3);
        });
    }
    void reinit(PictureSize newSize) {
        if (!object) return;
        size = newSize;
        check.call("Reinit", size, [&] { return object->Reinit(width(), height()); });
    }
    int apply(const std::string& key, const std::string& value) {
        if (!object) return 0;
        GuardedBuffer keyText("the key of a setting", key.size() + 1, 1, Side::end);
        GuardedBuffer valueText("the value of a setting", value.size() + 1, 1, Side::end);
        std::memcpy(keyText.data, key.c_str(), keyText.size);
        std::memcpy(valueText.data, value.c_str(), valueText.size);
        keyText.makeReadOnly();
        valueText.makeReadOnly();
        const std::string name = "Apply of " + inQuotes(key) + " = " + inQuotes(value);
        return check.call(name.c_str(), size, [&] {
            return object->Apply(reinterpret_cast<char*>(keyText.data),
                                 reinterpret_cast<char*>(valueText.data));
        });
    }
    void applySettings() {
        for (const auto& [key, value] : check.options.settings) {
            const int result = apply(key, value);
            if (result <= 0)
                check.findings.fault("the setting " + inQuotes(key) + " = " + inQuotes(value) +
                                     " is refused: Apply returned " + std::to_string(result));
        }
    }
    // Changes picture (or access unit) and time as the module does. `time` is in milliseconds.
    int process(Bytes& picture, int& time, Side side = Side::end, double* milliseconds = nullptr) {
        if (!object) return 0;
        const char* const name = isPassThrough ? "the access unit" : "the picture";
        GuardedBuffer data(name, picture.size(), 16, side);
        GuardedBuffer timestamp("the timestamp", sizeof time, alignof(int), side);
        std::copy(picture.begin(), picture.end(), data.data);
        std::memcpy(timestamp.data, &time, sizeof time);
        const auto started = std::chrono::steady_clock::now();
        const int result = check.call(isPassThrough ? "Process in pass-through mode" : "Process", size, [&] {
            return object->Process(data.data, static_cast<int>(picture.size()),
                                   reinterpret_cast<int*>(timestamp.data));
        });
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - started;
        if (milliseconds) *milliseconds = took.count();
        if (data.isDamagedAround())
            check.findings.fault(
                "Process, pictures of " + text(size) + ": writes outside of " + name +
                (side == Side::end ? ", less than 16 bytes behind its end" : ", behind its end"));
        if (timestamp.isDamagedAround())
            check.findings.fault("Process writes outside of the timestamp, an int");
        std::copy(data.data, data.data + picture.size(), picture.begin());
        std::memcpy(&time, timestamp.data, sizeof time);
        return result;
    }
    // A new picture of our own, of the size announced last.
    void processOne(Side side = Side::end) {
        Bytes picture = syntheticPicture(size, pictures);
        int time = pictures++ * millisecondsPerPicture;
        process(picture, time, side);
    }

    // As a pipeline that replaces its module.
    void closeAndDelete() {
        CModuleProcessor* const old = std::exchange(object, nullptr);
        if (!old) return;
        check.call("Close", size, [&] { old->Close(); });
        check.call("the deleting destructor", size, [&] { delete old; });
    }
    // As a pipeline that is closed.
    void destroy() {
        if (CModuleProcessor* const old = std::exchange(object, nullptr))
            check.call("DestroyVideoProcessor", size, [&] { check.destroy(old); });
    }

    CModuleProcessor* object;
    bool isPassThrough = false;
    PictureSize size;

private:
    unsigned short width() const { return static_cast<unsigned short>(size.width); }
    unsigned short height() const { return static_cast<unsigned short>(size.height); }

    ModuleCheck& check;
    int pictures = 0;
};

bool ModuleCheck::load() {
    // A path, which the dynamic loader takes as it is instead of searching for it.
    file = std::filesystem::absolute(options.module).lexically_normal();
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

bool ModuleCheck::resolve() {
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

// A module of another header has other operations in these places, or none.
bool ModuleCheck::slotsAreFunctions(const CModuleProcessor* object) {
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

bool ModuleCheck::checkObjects() {
    findings.begin("two objects at once, destroyed in both ways");
    Stream first(*this), second(*this);
    if (!first.object || !second.object) return false;
    for (const Stream* stream : {&first, &second}) {
        if (slotsAreFunctions(stream->object)) continue;
        first.object = second.object = nullptr; // nobody knows how to destroy them
        return false;
    }
    if (first.object == second.object) {
        findings.fault("CreateVideoProcessor returned the same object twice: two streams would share it");
        second.object = nullptr;
        return false;
    }
    for (Stream* stream : {&first, &second}) {
        const unsigned int ofObject = stream->guid();
        if (ofObject == guid) continue;
        findings.fault("GetGuid of the object returned " + std::to_string(ofObject) + ", the exported one " +
                       std::to_string(guid) +
                       ": they are to be the same, or is the class declared in another order?");
        break;
    }
    first.closeAndDelete();
    second.destroy();
    return true;
}

// The stream that the caller wants processed; the times are those of its pictures, the first few included.
void ModuleCheck::processInput() {
    std::optional<PictureReader> reader;
    if (!options.input.empty()) reader.emplace(options.input, options.picture);
    if (options.picture.width) size = options.picture;
    if (reader) size = reader->size;
    std::optional<PictureWriter> writer;
    if (!options.output.empty()) writer.emplace(options.output, size, reader ? reader->rate : "25:1");

    findings.begin("settings and pictures, ends guarded");
    mallopt(M_PERTURB, 0); // which takes time
    Stream stream(*this);
    stream.applySettings();
    stream.open(size);
    std::vector<double> milliseconds;
    int kept = 0;
    const int most = options.pictures ? options.pictures : reader ? INT_MAX : 100;
    Bytes picture;
    for (int i = 0; i < most; ++i) {
        if (!reader)
            picture = syntheticPicture(size, i);
        else if (!reader->read(picture))
            break;
        int time = i * millisecondsPerPicture;
        milliseconds.push_back(0);
        if (stream.process(picture, time, Side::end, &milliseconds.back()) == 0) continue;
        ++kept;
        if (writer) writer->write(picture);
    }
    stream.destroy();
    if (writer) writer->finish();
    if (milliseconds.empty()) throw std::runtime_error(options.input + ": no picture in it");

    findings.begin("settings and pictures, starts guarded");
    mallopt(M_PERTURB, filling);
    Stream other(*this);
    other.applySettings();
    other.open(size, Side::start);
    for (int i = 0; i < std::min<int>(most, 10); ++i)
        other.processOne(Side::start);
    other.closeAndDelete();
    findings.end();

    std::ranges::sort(milliseconds);
    const size_t count = milliseconds.size();
    std::printf("time   a picture of %s: median %.3f ms, 99th percentile %.3f ms (%zu pictures, %d kept)\n",
                text(size).c_str(), milliseconds[count / 2], milliseconds[(count - 1) * 99 / 100], count,
                kept);
    if (kept == 0) findings.note("it drops every picture: Process returned 0");
}

void ModuleCheck::checkSizes() {
    findings.begin("changes of size, odd, tiny and large ones");
    const PictureSize sizes[] = {{size.width + 1, size.height + 1},
                                 {1, 1},
                                 {2, 2},
                                 {3, 1},
                                 {1, 7},
                                 {17, 33},
                                 {176, 144},
                                 {4096, 2304},
                                 size};
    Stream stream(*this);
    stream.applySettings();
    stream.open({33, 19});
    stream.processOne();
    for (const PictureSize& next : sizes) {
        stream.reinit(next);
        stream.processOne(Side::end);
        stream.processOne(Side::start);
    }
    stream.closeAndDelete();
    for (const PictureSize& first : sizes) { // one that has nothing left of another size
        Stream fresh(*this);
        fresh.applySettings();
        fresh.open(first);
        fresh.processOne();
    }
}

void ModuleCheck::checkLateAttachment() {
    findings.begin("attached in mid-stream: no Open, and Reinit only when the size changes");
    for (const Side side : {Side::end, Side::start}) {
        Stream stream(*this);
        stream.applySettings();
        Bytes picture = syntheticPicture(size, 0);
        int time = 0;
        stream.process(picture, time, side);
        stream.reinit({176, 144});
        stream.processOne(side);
    }
    Stream unused(*this);
    unused.closeAndDelete();
}

void ModuleCheck::checkPassThrough() {
    findings.begin("pass-through: access units of any length, of none even");
    // The start of a stream: a sequence and a picture parameter set, then a slice that makes no sense.
    constexpr unsigned char head[] = {0, 0, 0, 1,    0x67, 0x42, 0xc0, 0x0a, 0xda, 0x7a, 0x20, 0,
                                      0, 0, 1, 0x68, 0xce, 0x3c, 0x80, 0,    0,    0,    1,    0x65};
    Stream stream(*this);
    stream.isPassThrough = true;
    stream.applySettings();
    bool isChanged = false;
    for (const Side side : {Side::end, Side::start}) {
        for (const size_t length :
             {size_t{0}, size_t{1}, size_t{4}, size_t{5}, size_t{23}, size_t{1500}, size_t{200001}}) {
            Bytes unit = syntheticPicture({1000, 200}, 0);
            std::copy(std::begin(head), std::end(head), unit.begin());
            unit.resize(length);
            const Bytes before = unit;
            int time = 0;
            stream.process(unit, time, side);
            isChanged = isChanged || unit != before;
        }
    }
    if (isChanged) findings.note("it changes access units in pass-through mode");
}

void ModuleCheck::checkSettings() {
    findings.begin("unknown settings and hostile values");
    constexpr PictureSize small{48, 32}, odd{7, 5};
    const std::string unknown = "no such setting";
    const std::string values[] = {"",
                                  " ",
                                  "0",
                                  "1",
                                  "-1",
                                  "x",
                                  "2147483647",
                                  "-2147483648",
                                  "4294967296",
                                  "99999999999999999999999999",
                                  "1e999",
                                  "-0.0000001",
                                  "nan",
                                  "0x7fffffff",
                                  "1,2,3,4",
                                  "-65535,-65535,65535,65535",
                                  "2147483647,2147483647,2147483647,2147483647",
                                  "-2147483648,-2147483648,2147483647,2147483647",
                                  ",,,,",
                                  "=",
                                  "\xc0\x80\xed\xa0\x80",
                                  "%s%s%s%s%s%s%s%s%n%n%n%n",
                                  "../../../../etc/passwd",
                                  std::string(1 << 20, 'A'),
                                  std::string(1 << 16, '9')};
    std::set<std::string> keys{unknown, "", "%s%n", std::string(1 << 16, 'k')};
    for (const auto& [key, value] : options.settings)
        keys.insert(key);
    for (const std::string& key : keys) {
        Stream stream(*this);
        for (const std::string& value : values) {
            const int taken = stream.apply(key, value);
            if (taken > 0 && key == unknown)
                findings.note("it takes a setting that it cannot know, " + inQuotes(key) +
                              ": Apply is to return 0 for that");
            if (taken <= 0) continue;
            stream.open(small);
            stream.processOne();
            stream.reinit(odd);
            stream.processOne();
        }
    }
}

struct Result {
    Bytes picture;
    int time;
    bool isKept;
    bool operator==(const Result&) const = default;
};
using Results = std::vector<Result>;

// Different streams have different objects, which know nothing of each other.
void ModuleCheck::checkIndependence() {
    findings.begin("two streams in turns, and on two threads at once");
    constexpr int pictures = 12;
    constexpr std::chrono::milliseconds timeToMeet(250); // in a variable that both threads use
    constexpr PictureSize sizes[] = {{176, 144}, {131, 67}};
    const auto start = [&](Stream& stream, size_t which) {
        stream.applySettings();
        stream.open(sizes[which]);
    };
    const auto next = [&](Stream& stream, size_t which, int number) {
        Result result{syntheticPicture(sizes[which], number), number * millisecondsPerPicture, false};
        result.isKept = stream.process(result.picture, result.time) != 0;
        return result;
    };
    const auto alone = [&](size_t which) {
        Stream stream(*this);
        start(stream, which);
        Results results;
        for (int i = 0; i < pictures; ++i)
            results.push_back(next(stream, which, i));
        return results;
    };
    const Results expected[] = {alone(0), alone(1)};
    const bool isRepeatable = alone(0) == expected[0] && alone(1) == expected[1];
    if (!isRepeatable)
        findings.note("the same pictures come out differently for a new object: chance, or state outside of "
                      "the objects "
                      "(a static variable)?");

    Results inTurns[2];
    {
        Stream streams[] = {Stream(*this), Stream(*this)};
        start(streams[0], 0);
        start(streams[1], 1);
        for (int i = 0; i < pictures; ++i)
            for (const size_t which : {0, 1})
                inTurns[which].push_back(next(streams[which], which, i));
    }
    if (isRepeatable && (inTurns[0] != expected[0] || inTurns[1] != expected[1]))
        findings.fault("two streams in turns disturb each other: their pictures are not those of each alone. "
                       "Is there state "
                       "outside of the objects (a static variable)?");

    std::barrier together(2);
    std::atomic<bool> disturbed = false;
    const auto alongside = [&](size_t which) {
        together.arrive_and_wait();
        const auto started = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - started < timeToMeet)
            if (alone(which) != expected[which]) disturbed = true;
    };
    runLikeJava({[&] { alongside(0); }, [&] { alongside(1); }});
    if (isRepeatable && disturbed)
        findings.fault(
            "two streams on two threads at once disturb each other: their pictures are not those of "
            "each alone");
}

// Bytes that malloc has handed out.
size_t memoryInUse() {
    const struct mallinfo2 all = mallinfo2();
    return all.uordblks + all.hblkhd;
}

// Whatever a process needs once is there after a few streams, and what a stream needs after some seconds of
// it; what grows after that is lost.
void ModuleCheck::checkMemory() {
    findings.begin("memory is freed: in a long stream, and in both ways of destroying");
    if (memoryInUse() == 0) {
        findings.skip("what malloc gives cannot be counted under valgrind and sanitizers, which tell of "
                      "leaks themselves");
        return;
    }
    constexpr ptrdiff_t leastBlock = 16; // of malloc
    const auto growth = [](int times, const auto& action) {
        const size_t before = memoryInUse();
        for (int i = 0; i < times; ++i)
            action();
        return static_cast<ptrdiff_t>(memoryInUse() - before) / times;
    };

    constexpr int pictures = 300;
    Stream longStream(*this);
    longStream.applySettings();
    longStream.open({64, 48});
    const auto onePicture = [&] { longStream.processOne(); };
    growth(pictures, onePicture);
    if (const ptrdiff_t lost = growth(pictures, onePicture); lost >= leastBlock)
        findings.fault("a stream holds about " + std::to_string(lost) + " bytes more after every picture");
    longStream.destroy();

    constexpr int streams = 16;
    for (const bool closes : {false, true}) {
        const auto oneStream = [&] {
            Stream stream(*this);
            stream.applySettings();
            stream.open({64, 48});
            stream.processOne();
            stream.reinit({33, 17});
            stream.processOne();
            if (closes) stream.closeAndDelete();
        };
        growth(streams, oneStream);
        const ptrdiff_t lost = std::min(growth(streams, oneStream), growth(streams, oneStream));
        if (lost >= leastBlock)
            findings.fault(
                "each stream leaves about " + std::to_string(lost) +
                " bytes behind when its object is destroyed by " +
                (closes ? "Close and the deleting destructor" : "DestroyVideoProcessor (without Close)"));
    }
}

int ModuleCheck::run() {
    GuardedBuffer::plain = options.plain;
    mallopt(M_PERTURB, filling);
    if (load())
        runLikeJava({[&] {
            if (!resolve() || !checkObjects()) return;
            processInput();
            checkSizes();
            checkLateAttachment();
            checkPassThrough();
            checkSettings();
            checkIndependence();
            checkMemory();
        }});
    findings.sumUp();
    return findings.faults();
}

} // namespace

int checkModule(const ModuleCheckOptions& options) { return ModuleCheck(options).run(); }
