#include "processor/check/ModuleCheck.h"

#include "processor/check/CheckedModule.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <climits>
#include <cstdio>
#include <stdexcept>

namespace {

using Side = GuardedBuffer::Side;

constexpr int filling = 0xa5; // of memory that malloc gives, for nothing to be 0 by chance

// The steps of a check, in their order.
class ModuleCheck {
public:
    explicit ModuleCheck(const ModuleCheckOptions& all) : options(all), module(all) {}
    int run();

private:
    bool checkObjects();
    void processInput();
    void checkSizes();
    void checkLateAttachment();
    void checkPassThrough();
    void checkSettings();
    void checkIndependence();
    void checkMemory();

    const ModuleCheckOptions& options;
    CheckedModule module;
    PictureSize size{640, 360}; // of the pictures to process
};

bool ModuleCheck::checkObjects() {
    module.findings.begin("two objects at once, destroyed in both ways");
    Stream first(module), second(module);
    if (!first.object || !second.object) return false;
    for (const Stream* stream : {&first, &second}) {
        if (module.slotsAreFunctions(stream->object)) continue;
        first.object = second.object = nullptr; // nobody knows how to destroy them
        return false;
    }
    if (first.object == second.object) {
        module.findings.fault(
            "CreateVideoProcessor returned the same object twice: two streams would share it");
        second.object = nullptr;
        return false;
    }
    for (Stream* stream : {&first, &second}) {
        const unsigned int ofObject = stream->guid();
        if (ofObject == module.guid) continue;
        module.findings.fault("GetGuid of the object returned " + std::to_string(ofObject) +
                              ", the exported one " + std::to_string(module.guid) +
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

    module.findings.begin("settings and pictures, ends guarded");
    mallopt(M_PERTURB, 0); // which takes time
    Stream stream(module);
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

    module.findings.begin("settings and pictures, starts guarded");
    mallopt(M_PERTURB, filling);
    Stream other(module);
    other.applySettings();
    other.open(size, Side::start);
    for (int i = 0; i < std::min<int>(most, 10); ++i)
        other.processOne(Side::start);
    other.closeAndDelete();
    module.findings.end();

    std::ranges::sort(milliseconds);
    const size_t count = milliseconds.size();
    std::printf("time   a picture of %s: median %.3f ms, 99th percentile %.3f ms (%zu pictures, %d kept)\n",
                text(size).c_str(), milliseconds[count / 2], milliseconds[(count - 1) * 99 / 100], count,
                kept);
    if (kept == 0) module.findings.note("it drops every picture: Process returned 0");
}

void ModuleCheck::checkSizes() {
    module.findings.begin("changes of size, odd, tiny and large ones");
    const PictureSize sizes[] = {{size.width + 1, size.height + 1},
                                 {1, 1},
                                 {2, 2},
                                 {3, 1},
                                 {1, 7},
                                 {17, 33},
                                 {176, 144},
                                 {4096, 2304},
                                 size};
    Stream stream(module);
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
        Stream fresh(module);
        fresh.applySettings();
        fresh.open(first);
        fresh.processOne();
    }
}

void ModuleCheck::checkLateAttachment() {
    module.findings.begin("attached in mid-stream: no Open, and Reinit only when the size changes");
    for (const Side side : {Side::end, Side::start}) {
        Stream stream(module);
        stream.applySettings();
        Bytes picture = syntheticPicture(size, 0);
        int time = 0;
        stream.process(picture, time, side);
        stream.reinit({176, 144});
        stream.processOne(side);
    }
    Stream unused(module);
    unused.closeAndDelete();
}

void ModuleCheck::checkPassThrough() {
    module.findings.begin("pass-through: access units of any length, of none even");
    // The start of a stream: a sequence and a picture parameter set, then a slice that makes no sense.
    constexpr unsigned char head[] = {0, 0, 0, 1,    0x67, 0x42, 0xc0, 0x0a, 0xda, 0x7a, 0x20, 0,
                                      0, 0, 1, 0x68, 0xce, 0x3c, 0x80, 0,    0,    0,    1,    0x65};
    Stream stream(module);
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
    if (isChanged) module.findings.note("it changes access units in pass-through mode");
}

void ModuleCheck::checkSettings() {
    module.findings.begin("unknown settings and hostile values");
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
        Stream stream(module);
        for (const std::string& value : values) {
            const int taken = stream.apply(key, value);
            if (taken > 0 && key == unknown)
                module.findings.note("it takes a setting that it cannot know, " + inQuotes(key) +
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
    module.findings.begin("two streams in turns, and on two threads at once");
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
        Stream stream(module);
        start(stream, which);
        Results results;
        for (int i = 0; i < pictures; ++i)
            results.push_back(next(stream, which, i));
        return results;
    };
    const Results expected[] = {alone(0), alone(1)};
    const bool isRepeatable = alone(0) == expected[0] && alone(1) == expected[1];
    if (!isRepeatable)
        module.findings.note(
            "the same pictures come out differently for a new object: chance, or state outside of "
            "the objects "
            "(a static variable)?");

    Results inTurns[2];
    {
        Stream streams[] = {Stream(module), Stream(module)};
        start(streams[0], 0);
        start(streams[1], 1);
        for (int i = 0; i < pictures; ++i)
            for (const size_t which : {0, 1})
                inTurns[which].push_back(next(streams[which], which, i));
    }
    if (isRepeatable && (inTurns[0] != expected[0] || inTurns[1] != expected[1]))
        module.findings.fault(
            "two streams in turns disturb each other: their pictures are not those of each alone. "
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
        module.findings.fault(
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
    module.findings.begin("memory is freed: in a long stream, and in both ways of destroying");
    if (memoryInUse() == 0) {
        module.findings.skip(
            "what malloc gives cannot be counted under valgrind and sanitizers, which tell of "
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
    Stream longStream(module);
    longStream.applySettings();
    longStream.open({64, 48});
    const auto onePicture = [&] { longStream.processOne(); };
    growth(pictures, onePicture);
    if (const ptrdiff_t lost = growth(pictures, onePicture); lost >= leastBlock)
        module.findings.fault("a stream holds about " + std::to_string(lost) +
                              " bytes more after every picture");
    longStream.destroy();

    constexpr int streams = 16;
    for (const bool closes : {false, true}) {
        const auto oneStream = [&] {
            Stream stream(module);
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
            module.findings.fault(
                "each stream leaves about " + std::to_string(lost) +
                " bytes behind when its object is destroyed by " +
                (closes ? "Close and the deleting destructor" : "DestroyVideoProcessor (without Close)"));
    }
}

int ModuleCheck::run() {
    GuardedBuffer::plain = options.plain;
    mallopt(M_PERTURB, filling);
    if (module.load())
        runLikeJava({[&] {
            if (!module.resolve() || !checkObjects()) return;
            processInput();
            checkSizes();
            checkLateAttachment();
            checkPassThrough();
            checkSettings();
            checkIndependence();
            checkMemory();
        }});
    module.findings.sumUp();
    return module.findings.faults();
}

} // namespace

int checkModule(const ModuleCheckOptions& options) { return ModuleCheck(options).run(); }
