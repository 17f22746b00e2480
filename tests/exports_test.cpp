#include "support/Output.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <set>
#include <sstream>

namespace {

const char* const placeholders[] = {"av_convert_lang_to",         "avpriv_dv_get_packet",
                                    "avpriv_dv_init_demux",       "avpriv_dv_produce_packet",
                                    "avpriv_mpegts_parse_close",  "avpriv_mpegts_parse_open",
                                    "avpriv_mpegts_parse_packet", "ff_rtp_get_local_rtcp_port",
                                    "ff_rtp_get_local_rtp_port",  "ff_rtsp_parse_line"};

// The native methods of each class; those with overloads have their parameters' signature.
const struct {
    const char* javaClass;
    std::vector<const char*> methods;
} classes[] = {
    {"com/kelvane/media/transform/codec/AVCDecoder", {"open", "decode", "close"}},
    {"com/kelvane/media/transform/codec/AVCEncoder", {"open", "encode", "close"}},
    {"com/kelvane/media/transform/codec/AACDecoder", {"open", "decode", "close"}},
    {"com/kelvane/media/transform/codec/AACEncoder", {"open", "encode", "close"}},
    {"com/kelvane/media/transform/codec/MPADecoder", {"open", "decode", "close"}},
    {"com/kelvane/media/transform/codec/NOpusDecoder", {"open", "decode", "close"}},
    {"com/kelvane/media/transform/codec/NOpusEncoder", {"open", "encode", "close"}},
    {"com/kelvane/media/transform/codec/AVCProcessor",
     {"loadLibrary", "open", "brew", "apply", "write", "read", "close"}},
    {"com/kelvane/media/transform/codec/MIRVProcessor", {"open", "apply", "start", "write", "close"}},
    {"com/kelvane/media/transform/codec/OpenH264Encoder", {"open", "encode", "close"}},
    {"com/kelvane/media/Tarnwick",
     {"av_malloc", "av_free", "avcodec_alloc_frame", "avcodec_free_frame", "avframe_set_data",
      "avframe_set_linesize", "avframe_set_key_frame", "avpacket_set_data", "avpicture_fill",
      "sws_getCachedContext", "sws_freeContext", "sws_scale(JJIILjava/lang/Object;III",
      "sws_scale(JLjava/lang/Object;IIIIILjava/lang/Object;III"}},
};

// The symbol by which a Java virtual machine finds a native method.
std::string entryPoint(const std::string& classAndMethod) {
    std::string symbol = "Java_";
    for (const char c : classAndMethod) {
        if (c == '/')
            symbol += "_";
        else if (c == '_')
            symbol += "_1";
        else if (c == ';')
            symbol += "_2";
        else if (c == '(')
            symbol += "__";
        else
            symbol += c;
    }
    return symbol;
}

} // namespace

TEST(EngineLibrary, ExportsNothingButEntryPointsAndPlaceholders) {
    std::set<std::string> expected(std::begin(placeholders), std::end(placeholders));
    for (const auto& [javaClass, methods] : classes)
        for (const std::string method : methods)
            expected.insert(entryPoint(javaClass + ("/" + method)));

    const CommandResult nm = run("nm -D --defined-only --format=posix " NATIVE_LIBRARY);
    ASSERT_EQ(nm.exitCode, 0);
    std::set<std::string> exported;
    std::istringstream lines(nm.output);
    for (std::string line; std::getline(lines, line);)
        exported.insert(line.substr(0, line.find(' ')));
    EXPECT_EQ(exported, expected);
}

TEST(EngineLibrary, PlaceholdersReturn) {
    void* library = dlopen(NATIVE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(library) << dlerror();
    for (const char* name : placeholders) {
        auto* placeholder = reinterpret_cast<void (*)()>(dlsym(library, name));
        ASSERT_TRUE(placeholder) << name;
        Dl_info found;
        ASSERT_TRUE(dladdr(reinterpret_cast<void*>(placeholder), &found));
        EXPECT_STREQ(found.dli_fname, NATIVE_LIBRARY) << name;
        EXPECT_EQ(printedBy(placeholder), "");
    }
    dlclose(library);
}
