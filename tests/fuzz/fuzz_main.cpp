// libFuzzer over one kind of engine: `kelvane_fuzz --subject=h264 CORPUS...`; `--seeds=FOLDER` writes the
// seeds of the subject there and ends.

#include "fuzz/Subjects.h"

extern "C" {
#include <libavutil/log.h>
}

#include <cstdio>
#include <cstdlib>
#include <fstream>

static const SubjectKind* kind;

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments) {
    std::string subject, seeds;
    for (int i = 1; i < *count; ++i) {
        const std::string argument = (*arguments)[i];
        if (argument.starts_with("--subject=")) subject = argument.substr(10);
        if (argument.starts_with("--seeds=")) seeds = argument.substr(8);
    }
    for (const SubjectKind& known : subjectKinds())
        if (subject == known.name) kind = &known;
    if (!kind) {
        std::fprintf(stderr, "there is no subject %s\n", subject.c_str());
        std::exit(2);
    }
    av_log_set_level(AV_LOG_QUIET);
    if (seeds.empty()) return 0;
    for (const char* file : kind->seeds)
        for (const auto cutting : std::initializer_list<uint8_t>{0, 1, 2, 11}) {
            Script script = seedOf(*kind, file);
            if (script.calls.size() > 8) script.calls.resize(8); // short seeds are mutated fast
            script.choices[3] = cutting;
            const Bytes bytes = written(*kind, script);
            std::ofstream seed(seeds + "/" + file + "-" + std::to_string(cutting), std::ios::binary);
            seed.write(reinterpret_cast<const char*>(bytes.data()),
                       static_cast<std::streamsize>(bytes.size()));
        }
    std::exit(0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    live(*kind, scriptOf(*kind, data, size));
    return 0;
}
