#include "fuzz/Subjects.h"
#include "support/Media.h"
#include "support/OpenH264.h"
#include "support/Output.h"
#include "support/Throwing.h"
#include "video/AVCDecoder.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace {

class Exceptions : public WithOpenH264 {};

} // namespace

// Every call that may throw does, in a life of its own of every engine; the next life is as ever.
TEST_F(Exceptions, OfLibrariesStayInTheEngine) {
    int lives = 0;
    std::map<std::string, int> encodes; // lives of each kind with an exception in FFmpeg's encoder
    for (const SubjectKind& kind : subjectKinds()) {
        // These call nothing that has C++ behind it.
        const std::string_view name = kind.name;
        if (name == "primitives" || name == "muxer" || name == "resampler") continue;
        Script script = seedOf(kind, kind.seeds[0]);
        if (script.calls.size() > 6) script.calls.resize(6);
        std::vector<uint64_t> expected;
        int calls = 0;
        printedBy([&] {
            const ThrowingLibraries none(library, 0);
            expected = live(kind, script);
            calls = none.calls();
        });
        EXPECT_GE(calls, 1) << kind.name;
        lives += calls;
        for (int throwAt = 1; throwAt <= calls; ++throwAt) {
            SCOPED_TRACE(std::string(name) + ", call " + std::to_string(throwAt));
            const std::string printed = printedBy([&] {
                const ThrowingLibraries libraries(library, throwAt);
                EXPECT_NO_THROW(EXPECT_LE(live(kind, script).size(), expected.size()));
                EXPECT_GE(libraries.calls(), throwAt);
            });
            encodes[kind.name] += printed.find("Exception in encode\n") != std::string::npos;
            printedBy([&] { EXPECT_EQ(live(kind, script), expected); });
        }
    }
    std::printf("%d lives with an exception in each\n", lives);
    for (const auto& [kind, number] : encodes)
        EXPECT_EQ(number > 0, kind == "ffmpeg-h264" || kind == "pipeline") << kind;
}

// FFmpeg's decoder cannot be used after an exception has gone through it.
TEST_F(Exceptions, BeginADecoderAnew) {
    const std::vector<Bytes> units = accessUnits("baseline.h264");
    VideoDecoder decoder;
    printedBy([&] { decoder.open(); });
    for (int round = 0; round < 3; ++round) {
        printedBy([&] {
            EXPECT_EQ(
                std::ranges::count_if(units, [&](const Bytes& unit) { return decode(decoder, unit) == 1; }),
                static_cast<ptrdiff_t>(units.size()));
        });
        decoder.context->get_buffer2 = [](AVCodecContext*, AVFrame*, int) -> int { throw 7; };
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(decode(decoder, units[0]), 0); }),
                  "Exception in decode\nAVC decoder codec opened 0\n");
        EXPECT_EQ(decoder.packet.data, nullptr);
    }
}
