#include "support/Output.h"

#include <gtest/gtest.h>

// The installed tree, used from a working directory that is not its own.
TEST(InstalledLibrary, BindsEveryNativeMethodOfAPlainJavaProgram) {
    const char* tree = std::getenv("KELVANE_DIST");
    ASSERT_TRUE(tree) << "KELVANE_DIST is to name the installed tree";
    const CommandResult result =
        run("cd / && java -Xcheck:jni -cp " + std::string(tree) +
            "/lib/kelvane-media.jar:" TEST_JAR " com.kelvane.media.test.NativeMethods"
            " transform.codec.AACDecoder transform.codec.AACEncoder transform.codec.MPADecoder"
            " transform.codec.NOpusDecoder transform.codec.NOpusEncoder"
            " transform.codec.AVCDecoder transform.codec.AVCEncoder transform.codec.MIRVProcessor"
            " transform.codec.AVCProcessor transform.codec.OpenH264Encoder Tarnwick 2>&1");
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_NE(result.output.find("65 native methods bound\n"), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("WARNING in native method"), std::string::npos) << result.output;
    // OpenH264 is looked for from the working directory: once by the Java method, once by the engine it
    // makes.
    EXPECT_NE(
        result.output.find("could not load pointers\ncould not load pointers\nAVC encoder codec closed\n"),
        std::string::npos)
        << result.output;
}
