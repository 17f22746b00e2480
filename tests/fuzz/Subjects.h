#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

// The one harness for hostile input: every engine behind the same four calls, and what it is given as a
// script.

using Bytes = std::vector<uint8_t>;

// What an engine is opened with, as bytes that each engine reads in its own way; all 0 is its plain use.
using Choices = std::array<uint8_t, 4>;

// What an engine is opened with and then given. An empty call drains; for audio it is an empty packet.
struct Script {
    Choices choices{};
    Bytes config; // the AudioSpecificConfig
    std::vector<Bytes> calls;
};

// Nothing here allocates memory but the engine, so that each of its allocations can be made to fail.
class Subject {
public:
    virtual ~Subject() = default;
    virtual void open(const Script& script) = 0;
    // One call. A hash of all that came out of it with its time, 0 when nothing did.
    virtual uint64_t give(const Bytes& input, uint32_t time) = 0;
    // The end of the stream: the same for the next picture that is held back.
    virtual uint64_t drain() { return 0; }
    virtual void close() = 0;
};

struct SubjectKind {
    const char* name;
    std::unique_ptr<Subject> (*make)();
    enum Input { annexB, packets, noise } input;
    std::vector<const char*> seeds; // in tests/data
    bool exact; // what a good stream gives does not depend on what the engine was given before, but for a few
                // calls
};
const std::vector<SubjectKind>& subjectKinds();

// The access units of an Annex-B stream in tests/data, each behind a long start code, or the packets of a
// sound file.
Script streamOf(const std::string& file);
// The same, or made-up bytes.
Script seedOf(const SubjectKind& kind, const char* file);

// An Annex-B stream in pieces, of NAL units each behind a long start code; the seed says where, where that is
// by chance. What is ahead of the first NAL unit is lost.
enum Cutting { atAccessUnits, atNalUnits, atEither, anywhere };
std::vector<Bytes> cutStream(const Bytes& stream, Cutting cutting, uint32_t seed = 0);

// Scripts as bytes, for libFuzzer. Choices come first; the fourth also says how a stream is cut.
Bytes written(const SubjectKind& kind, const Script& script);
Script scriptOf(const SubjectKind& kind, const uint8_t* data, size_t size);

// The stream mutator. Each fault spoils one call or the order of calls.
enum Fault { flip, cut, drop, repeat, swap, faults };
void spoil(Script& script, size_t call, Fault fault, std::minstd_rand& random);
// Spoils about one call in three, by any fault.
Script spoilt(Script script, std::minstd_rand& random);

// Gives the calls in order, with times from `time` on, and drains at the end when asked to; the answers to
// all of them.
std::vector<uint64_t> play(Subject& subject, const Script& script, uint32_t time, bool drained);
// A whole life: open, play, close.
std::vector<uint64_t> live(const SubjectKind& kind, const Script& script);
