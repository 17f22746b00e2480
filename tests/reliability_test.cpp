#include "com_kelvane_media_transform_codec_AACEncoder.h"
#include "com_kelvane_media_transform_codec_AVCDecoder.h"
#include "com_kelvane_media_transform_codec_AVCEncoder.h"
#include "com_kelvane_media_transform_codec_MIRVProcessor.h"
#include "com_kelvane_media_transform_codec_MPADecoder.h"
#include "com_kelvane_media_transform_codec_NOpusDecoder.h"
#include "com_kelvane_media_transform_codec_NOpusEncoder.h"
#include "com_kelvane_media_transform_codec_OpenH264Encoder.h"
#include "fuzz/FakeJava.h"
#include "fuzz/Subjects.h"
#include "support/Media.h"
#include "support/Output.h"
#include "support/failing_malloc.h"
#include "transcoder/CoderOut.h"
#include "video/AVCDecoder.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <bitset>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>

namespace {

using Answers = std::vector<uint64_t>;

// What the engines print, libopus's complaints included, is not looked at.
void quietly(const std::function<void()>& action) {
    printedBy([&] { printedBy(action, 2); });
}

const SubjectKind& kindNamed(const std::string& name) {
    return *std::ranges::find(subjectKinds(), name, &SubjectKind::name);
}

std::unique_ptr<Subject> opened(const SubjectKind& kind, const Script& script) {
    std::unique_ptr<Subject> subject = kind.make();
    subject->open(script);
    return subject;
}

Answers outcomes(Answers answers) {
    std::erase(answers, 0u);
    return answers;
}

bool endsWith(const Answers& answers, const Answers& end) {
    return answers.size() >= end.size() && std::equal(end.rbegin(), end.rend(), answers.rbegin());
}

// The same stream in a row, with the end after the last: what came out of all.
constexpr size_t passes = 3;
Answers playInARow(Subject& subject, const Script& script, uint32_t time) {
    Answers answers;
    for (uint32_t pass = 1; pass <= passes; ++pass) {
        const Answers more = play(subject, script, pass * time, pass == passes);
        answers.insert(answers.end(), more.begin(), more.end());
    }
    return outcomes(answers);
}

int sizeOf(const Bytes& bytes) { return static_cast<int>(bytes.size()); }

} // namespace

// Whatever a stranger writes: seeds with faults of every kind, through the whole life of every engine.
TEST(EngineReliability, OutlivesHostileInput) {
    for (const SubjectKind& kind : subjectKinds()) {
        std::minstd_rand random(20261123);
        int delivered = 0;
        quietly([&] {
            for (const char* file : kind.seeds)
                for (int round = 0; round < 4 * effort(); ++round) {
                    const Bytes bytes = written(kind, spoilt(seedOf(kind, file), random));
                    delivered += outcomes(live(kind, scriptOf(kind, bytes.data(), bytes.size()))).size() > 0;
                }
        });
        EXPECT_GT(delivered, 0) << kind.name;
    }
}

// One fault in every call. An engine that is then drained, as at the end of a stream, answers the next stream
// as a new one does, and one that is not shows every picture of it from the first key picture on; with two
// exceptions. FFmpeg shows through what it had of a damaged key picture in the next one, flushed or not; and
// confused fields take a third.
TEST(EngineReliability, ServesTheNextGoodInputAfterAnyBadOne) {
    int streams = 0, fromTheFirst = 0, asNew = 0;
    for (const SubjectKind& kind : subjectKinds()) {
        if (kind.input == SubjectKind::noise) continue;
        std::unique_ptr<Subject> used; // never sees a bad stream
        quietly([&] { used = opened(kind, Script()); });
        for (const char* file : kind.seeds) {
            const Script good = seedOf(kind, file);
            constexpr uint32_t time = 100'000;
            Answers alone, all;
            quietly([&] {
                alone = play(*opened(kind, good), good, time, true);
                all = playInARow(*opened(kind, good), good, time);
                if (!kind.exact) return;
                const Answers behindTheEnd = play(*used, good, time, false);
                EXPECT_TRUE(std::equal(behindTheEnd.begin(), behindTheEnd.end(), alone.begin())) << file;
                used->drain(); // and others are left
                EXPECT_EQ(play(*used, good, time, true), alone) << file;
            });
            const size_t pictures = outcomes(alone).size();
            if (pictures == 0 && std::string(file) == "tiny.h264") continue; // too small for an encoder
            ASSERT_GE(all.size() + (kind.exact ? 0 : 2), passes * pictures) << kind.name << " " << file;
            const Answers fromTheThird(all.begin() + static_cast<ptrdiff_t>(2 * pictures), all.end());
            for (int fault = 0; fault < faults; ++fault) {
                SCOPED_TRACE(std::string(kind.name) + " " + file + ", fault " + std::to_string(fault));
                std::minstd_rand random(static_cast<unsigned>(1 + fault));
                // Packets are few and fast; transcoders and pipelines have the same decoder inside. Five
                // flips for one cut.
                const int share = kind.input == SubjectKind::packets ? 6 * effort()
                                  : kind.exact                       ? effort()
                                                                     : std::max(1, effort() / 8);
                for (int round = 0; round < (fault == flip ? 5 : 1) * share; ++round) {
                    Script bad = good;
                    for (size_t i = bad.calls.size(); i-- > 0;) {
                        const bool disorder =
                            fault == drop || fault == repeat; // some calls have to stay as they are
                        if (!disorder || i % 4 == static_cast<size_t>(round % 4))
                            spoil(bad, i, static_cast<Fault>(fault), random);
                    }
                    Answers drained, answers;
                    quietly([&] {
                        const auto subject = opened(kind, good);
                        play(*subject, bad, 0, true);
                        drained = play(*subject, good, time, true);
                        const auto other = opened(kind, good);
                        play(*other, bad, 0, false);
                        answers = playInARow(*other, good, time);
                    });
                    if (!kind.exact) { // encoders and sound depend on what was before
                        EXPECT_GE(outcomes(drained).size() + 1, pictures); // as does which one a module drops
                        EXPECT_GE(answers.size() + 2, passes * pictures);
                        continue;
                    }
                    EXPECT_TRUE(endsWith(answers, fromTheThird));
                    ++streams;
                    fromTheFirst += endsWith(answers, all);
                    asNew += drained == alone;
                }
            }
        }
    }
    std::printf("%d damaged H.264 streams: all from the first key picture on %d, drained first %d\n", streams,
                fromTheFirst, asNew);
    EXPECT_GT(fromTheFirst, streams * 9 / 10);
    EXPECT_GT(asNew, streams * 9 / 10);
}

TEST(EngineReliability, FollowsEveryChangeOfSize) {
    Script script;
    std::minstd_rand random(1);
    const auto side = [&] { return 16 + 2 * static_cast<uint32_t>(random() % 70); };
    for (const char* name : {"h264", "transcoder", "pipeline"}) {
        size_t delivered = 0;
        quietly([&] {
            while (script.calls.size() < 300)
                script.calls.push_back(keyPicture(side(), side()));
            delivered = outcomes(live(kindNamed(name), script)).size();
        });
        // The module of this pipeline drops every other picture.
        EXPECT_EQ(delivered, script.calls.size() / (std::string(name) == "pipeline" ? 2 : 1)) << name;
    }
}

namespace {

// Bits as text, and a NAL unit of them behind its start code, with the bytes in it that keep start codes out.
std::string golomb(uint32_t value) {
    const int size = std::bit_width(value + 1);
    const std::string digits = std::bitset<32>(value + 1).to_string().substr(static_cast<size_t>(32 - size));
    return std::string(digits.size() - 1, '0') + digits;
}
Bytes nalUnit(uint8_t header, const std::string& bits) {
    Bytes unit{0, 0, 0, 1, header};
    size_t zeros = 0;
    const std::string padded = bits + "10000000";
    for (size_t at = 0; at + 8 <= padded.size(); at += 8) {
        const auto byte = static_cast<uint8_t>(std::stoi(padded.substr(at, 8), nullptr, 2));
        if (zeros >= 2 && byte <= 3) unit.push_back(3), zeros = 0;
        unit.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return unit;
}

Bytes operator+(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Baseline, level 6.2; pictures in order, one to refer to.
Bytes parameterSets(uint32_t macroblocksWide, uint32_t macroblocksHigh) {
    return nalUnit(0x67, "010000100000000000111110110110100" + golomb(macroblocksWide - 1) +
                             golomb(macroblocksHigh - 1) + "1100") +
           nalUnit(0x68, "1100111000111000");
}

// A slice of an IDR picture: grey macroblocks, of one byte each.
Bytes greySlice(uint32_t firstMacroblock, uint32_t count) {
    return nalUnit(0x65, golomb(firstMacroblock) + golomb(7) + "100001001" +
                             repeated("00100111", static_cast<int>(count)));
}

// A picture of one slice for each macroblock, in so many calls.
std::vector<Bytes> slicedPicture(uint32_t wide, uint32_t high, uint32_t calls) {
    std::vector<Bytes> pieces(calls);
    pieces[0] = parameterSets(wide, high);
    for (uint32_t i = 0; i < wide * high; ++i) {
        const Bytes slice = greySlice(i, 1);
        Bytes& piece = pieces[i * calls / (wide * high)];
        piece.insert(piece.end(), slice.begin(), slice.end());
    }
    return pieces;
}

int pictures(VideoDecoder& decoder, const std::vector<Bytes>& calls) {
    return static_cast<int>(
        std::ranges::count_if(calls, [&](const Bytes& call) { return decode(decoder, call) == 1; }));
}

} // namespace

// What FFmpeg would pay for dearly, or mistake, does not reach it; what is just within the limits does, and
// the next good stream always.
TEST(EngineReliability, KeepsFromFFmpegWhatItCannotTake) {
    const std::vector<Bytes> good = seedOf(kindNamed("h264"), "baseline.h264").calls;
    Bytes emptyUnits = parameterSets(2, 2), fewer;
    for (int i = 0; i < 10'300; ++i) {
        if (i == 10'000) fewer = emptyUnits + greySlice(0, 4);
        emptyUnits.insert(emptyUnits.end(), {0, 0, 1, 9});
    }
    emptyUnits = std::move(emptyUnits) + greySlice(0, 4);
    const struct {
        const char* name;
        std::vector<Bytes> calls;
        int pictures;
    } cases[] = {
        {"16384x16128", {parameterSets(1024, 1008) + greySlice(0, 4)}, 0},
        {"one macroblock row above level 6.2", {parameterSets(1024, 137) + greySlice(0, 4)}, 0},
        {"8192 slices", slicedPicture(128, 64, 1), 1},
        {"8320 slices", slicedPicture(128, 65, 1), 0},
        {"8192 slices in 4 calls", slicedPicture(128, 64, 4), 1},
        {"8320 slices in 4 calls, given up after 3", slicedPicture(128, 65, 4), 1},
        {"10,003 NAL units", {fewer}, 1},
        {"10,303 NAL units", {emptyUnits}, 0},
        {"more bytes than any picture has", {Bytes(190'000'000)}, 0},
    };
    for (auto [name, calls, expected] : cases) {
        if (sizeOf(calls[0]) == 190'000'000) calls[0][3] = 1;
        quietly([&] {
            VideoDecoder decoder;
            decoder.open();
            EXPECT_EQ(pictures(decoder, good), 30) << name;
            const auto before = mallinfo2();
            EXPECT_EQ(pictures(decoder, calls), expected) << name;
            const auto after = mallinfo2();
            EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + 80'000'000) << name;
            EXPECT_GE(pictures(decoder, good), 29) << name;
            EXPECT_EQ(pictures(decoder, good), 30) << name;
        });
    }
}

// Engines know nothing of each other: 1 to 32 at once give the bytes that they give alone.
TEST(EngineReliability, EnginesAtOnceAreAsAlone) {
    struct Life {
        const SubjectKind* kind;
        Script script;
        Answers alone;
    };
    std::vector<Life> lives;
    quietly([&] {
        for (const SubjectKind& kind : subjectKinds()) {
            Script script = seedOf(kind, kind.seeds[0]);
            if (script.calls.size() > 12) script.calls.resize(12);
            lives.push_back({&kind, script, live(kind, script)});
            EXPECT_FALSE(outcomes(lives.back().alone).empty()) << kind.name;
        }
    });
    for (size_t count = 2; count <= 32; count += effort() > 1 ? 1 : 15) {
        std::vector<Answers> answers(count);
        quietly([&] {
            std::vector<std::thread> threads;
            for (size_t i = 0; i < count; ++i)
                threads.emplace_back([&, i] {
                    const Life& life = lives[i % lives.size()];
                    answers[i] = live(*life.kind, life.script);
                });
            for (std::thread& thread : threads)
                thread.join();
        });
        for (size_t i = 0; i < count; ++i)
            EXPECT_TRUE(answers[i] == lives[i % lives.size()].alone)
                << lives[i % lives.size()].kind->name << " beside " << count - 1 << " others";
    }
}

namespace {

// What became of an engine's life in a process of its own.
struct Outcome {
    size_t delivered;
    AllocationRecord record;
    void* crash[24]; // return addresses
};
Outcome* outcome; // shared with that process

extern "C" void reportCrash(int) {
    backtrace(outcome->crash, std::size(Outcome().crash));
    std::fill_n(outcome->crash, 2, nullptr); // this function, and what calls it for the system
    _exit(1);
}

// File and function of the first of the addresses that lies in no library of the system's.
template <size_t count>
std::string placeOf(void* const (&addresses)[count]) {
    for (void* address : addresses) {
        Dl_info info;
        if (!address || !dladdr(address, &info)) continue;
        const std::string file =
            std::string(info.dli_fname).substr(std::string(info.dli_fname).rfind('/') + 1);
        if (std::ranges::none_of(
                std::array{"libc.so", "failing_malloc", "libavutil", "libgcc_s", "libstdc++"},
                [&](const char* name) { return file.find(name) != std::string::npos; }))
            return file + " " + (info.dli_sname ? info.dli_sname : "?");
    }
    return "no code"; // a null function was called
}

void liveFailing(AllocationRecord& record, const SubjectKind& kind, const Script& script, long failAt) {
    const std::unique_ptr<Subject> subject = kind.make();
    size_t delivered = 0;
    record = {true, 0, failAt, 0, {}};
    subject->open(script);
    uint32_t time = 0;
    for (const Bytes& call : script.calls)
        delivered += subject->give(call, time++) != 0;
    for (int i = 0; subject->drain() && i < 20; ++i)
        ++delivered;
    subject->close();
    record.counting = false;
    outcome->delivered = delivered;
    outcome->record = record;
}

} // namespace

// Run apart from the others, with the counting allocation functions preloaded.
AllocationRecord& preloaded() {
    const auto find = reinterpret_cast<AllocationRecord* (*)()>(dlsym(RTLD_DEFAULT, "allocationRecord"));
    if (!find) throw std::runtime_error("LD_PRELOAD must name the library failing_malloc");
    return *find();
}

// The first allocation of a native method that opens is the engine's, of one that takes an array that
// array's.
TEST(Allocation, NativeMethodsAnswerWithoutMemory) {
#define NATIVE(type, method) Java_com_kelvane_media_transform_codec_##type##_##method
#define ENGINE(type, withoutEngine, method, settings, arguments)                                             \
    {                                                                                                        \
#type, [](JNIEnv* env) { return NATIVE(type, open) settings; }, withoutEngine,                       \
            [](JNIEnv* env, jbyteArray array, jlong handle) { return NATIVE(type, method) arguments; },      \
            NATIVE(type, close)       \
    }
    const struct {
        const char* name;
        jlong (*open)(JNIEnv*);
        jlong withoutEngine;
        jint (*give)(JNIEnv*, jbyteArray, jlong);
        void (*close)(JNIEnv*, jclass, jlong);
    } engines[] = {
        ENGINE(AACEncoder, -1, encode, (env, nullptr, 2, 48000), (env, nullptr, array, array, array, handle)),
        ENGINE(MPADecoder, 0, decode, (env, nullptr), (env, nullptr, array, array, array, handle)),
        ENGINE(NOpusDecoder, 0, decode, (env, nullptr, 2, 0), (env, nullptr, array, array, handle)),
        ENGINE(NOpusEncoder, 0, encode, (env, nullptr, 2, 64000, 20), (env, nullptr, array, array, handle)),
        ENGINE(AVCDecoder, -1, decode, (env, nullptr), (env, nullptr, array, array, array, handle)),
        ENGINE(OpenH264Encoder, -1, encode, (env, nullptr, 64, 48, 25, 1, 0),
               (env, nullptr, array, array, handle)),
        ENGINE(AVCEncoder, 0, encode, (env, nullptr, 64, 48, 25, 50, 100'000),
               (env, nullptr, array, array, handle)),
    };
    AllocationRecord& record = preloaded();
    quietly([&] {
        FakeObject array{"[B", 1, Bytes(100'000)};
        for (const auto& engine : engines) {
            SCOPED_TRACE(engine.name);
            const jlong handle = engine.open(fakeJava());
            EXPECT_GT(handle, 0);
            record = {true, 0, 1, 0, {}};
            const jlong opened = engine.open(fakeJava());
            record = {true, 0, 1, 0, {}};
            const jint given = engine.give(fakeJava(), reinterpret_cast<jbyteArray>(&array), handle);
            record = {};
            EXPECT_EQ(opened, engine.withoutEngine);
            EXPECT_EQ(given, 0);
            engine.close(fakeJava(), nullptr, handle);
        }
        for (const long missing : {1, 2, 3}) { // the transcoder, its outputs, its decoder
            record = {true, 0, missing, 0, {}};
            EXPECT_EQ(NATIVE(MIRVProcessor, open)(fakeJava(), nullptr, 2), 0) << missing;
            record = {};
        }
        const SubjectKind& pipeline = kindNamed("pipeline");
        const Script script = seedOf(pipeline, "bframes.h264"); // of which two pictures are held back
        int others = 0;
        for (long missing = 1; missing <= 8; ++missing) { // the picture, its encoder, and what that takes
            const auto subject = opened(pipeline, script);
            EXPECT_EQ(subject->give(script.calls[0], 0) + subject->give(script.calls[1], 1), 0u);
            record = {true, 0, missing, 0, {}};
            subject->drain();
            record = {};
            others += subject->drain() != 0;
            subject->close();
        }
        EXPECT_GT(others, 0); // where FFmpeg itself fails, it ends the stream
    });
}

TEST(Allocation, EachOneMayFail) {
    AllocationRecord& record = preloaded();
    outcome = static_cast<Outcome*>(
        mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    constexpr long most = 2000;
    const long step = effort() > 1 ? 1 : 17;
    for (const SubjectKind& kind : subjectKinds()) {
        if (std::string(kind.name) == "primitives") continue; // whose input takes memory itself
        Script script = seedOf(kind, kind.seeds[0]);
        if (script.calls.size() > 6) script.calls.resize(6);
        long allocations = 0, lives = 0, poorer = 0;
        std::map<std::string, int> crashes, leaks;
        quietly([&] {
            const size_t expected = outcomes(live(kind, script)).size();
            liveFailing(record, kind, script, 0); // what lasts longer than engines is made in the first life
            liveFailing(record, kind, script, 0);
            allocations = outcome->record.allocations;
            EXPECT_EQ(outcome->delivered, expected) << kind.name;
            EXPECT_EQ(outcome->record.live, 0) << kind.name;
            for (long k = 1; k <= std::min(most, allocations); k += step, ++lives) {
                std::memset(static_cast<void*>(outcome), 0, sizeof *outcome);
                const pid_t child = fork();
                if (child == 0) {
                    for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL})
                        std::signal(signal, reportCrash);
                    try {
                        liveFailing(record, kind, script, k);
                    } catch (...) { // which no native method may let through
                        std::ranges::copy(std::array{record.site[3], record.site[4], record.site[5]},
                                          outcome->crash);
                        _exit(2);
                    }
                    _exit(0);
                }
                int status = 0;
                waitpid(child, &status, 0);
                if (status != 0)
                    ++crashes[(WEXITSTATUS(status) == 2 ? "an exception from " : "a crash in ") +
                              placeOf(outcome->crash)];
                else if (outcome->record.live != 0)
                    ++leaks[placeOf(outcome->record.site)];
                else
                    poorer += outcome->delivered < expected;
            }
        });
        std::printf("%s: %ld allocations, %ld lives with one that fails; %ld deliver less\n", kind.name,
                    allocations, lives, poorer);
        // FFmpeg and OpenH264 do not check each of theirs: docs/reliability.md. Nothing of ours may go wrong.
        for (const auto& wrong : {crashes, leaks})
            for (const auto& [place, count] : wrong)
                EXPECT_EQ(place.find("kelvane"), std::string::npos) << kind.name << ": " << place;
        for (const auto& [place, count] : crashes)
            std::printf("  %d: %s\n", count, place.c_str());
        for (const auto& [place, count] : leaks)
            std::printf("  %d leak where the one fails of %s\n", count, place.c_str());
    }
}
