#include "support/Output.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

TEST(EngineLibrary, ExportsNothingButEntryPointsAndPlaceholders) {
    const std::set<std::string> placeholders{"av_convert_lang_to",         "avpriv_dv_get_packet",
                                             "avpriv_dv_init_demux",       "avpriv_dv_produce_packet",
                                             "avpriv_mpegts_parse_close",  "avpriv_mpegts_parse_open",
                                             "avpriv_mpegts_parse_packet", "ff_rtp_get_local_rtcp_port",
                                             "ff_rtp_get_local_rtp_port",  "ff_rtsp_parse_line"};
    const CommandResult nm = run("nm -D --defined-only --format=posix " NATIVE_LIBRARY);
    ASSERT_EQ(nm.exitCode, 0);
    int entryPoints = 0;
    std::set<std::string> others;
    std::istringstream lines(nm.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("Java_com_kelvane_media_"))
            ++entryPoints;
        else
            others.insert(line.substr(0, line.find(' ')));
    }
    EXPECT_EQ(entryPoints, 123);
    EXPECT_EQ(others, placeholders);
}
