#include "audio/MP3AudioDecoder.h"
#include "com_kelvane_media_transform_codec_MPADecoder.h"
#include "support/Output.h"
#include "support/Sound.h"

#include <gtest/gtest.h>

#define MPADecoder(name) Java_com_kelvane_media_transform_codec_MPADecoder_##name

TEST(MP3Decoder, SamplesEqualFFmpegsOwn) {
    for (const int channels : {1, 2}) {
        const Script stream = streamOf(channels == 1 ? "mono.mp3" : "stereo.mp3");
        const jlong handle = MPADecoder(open)(javaEnv(), nullptr);
        const int difference =
            comparedWithFFmpeg(AV_CODEC_ID_MP3, MPADecoder(decode), handle, stream, 44100, channels);
        EXPECT_EQ(difference, 0);
        MPADecoder(close)(javaEnv(), nullptr, handle);
    }
}

TEST(MP3Decoder, TellsWhatHappensToIt) {
    const LocalFrame references;
    JNIEnv* env = javaEnv();
    jlong handle = 0;
    EXPECT_EQ(printedBy([&] { handle = MPADecoder(open)(env, nullptr); }), "codec opened\n");
    jbyteArray frame = javaArray(streamOf("stereo.mp3").calls.at(0));
    jbyteArray info = javaArray(5), output = javaArray(4607);
    EXPECT_EQ(
        printedBy([&] { EXPECT_EQ(MPADecoder(decode)(env, nullptr, frame, info, output, handle), -4608); }),
        "error, expected sample size did not match 4608 \n");
    written(output, 0);
    written(info, 0);
    jbyteArray longer = javaArray(5000);
    EXPECT_EQ(MPADecoder(decode)(env, nullptr, frame, info, longer, handle), 0);
    written(longer, 4608);
    EXPECT_EQ(printedBy([&] { MPADecoder(close)(env, nullptr, handle); }), "MP3 decoder codec closed\n");
}
