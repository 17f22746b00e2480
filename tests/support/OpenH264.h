#pragma once

#include "support/recording_openh264.h"

#include "video/AVCEncoder.h"

#include <gtest/gtest.h>

// Sets what an open encoder is to have given the library, over what that gave it for a start.
void setAsConfigured(SEncParamExt& parameters, const NativeOpenH264Encoder& encoder);

// The recorder that stands in front of OpenH264 in the tests' working directory, reset for each test.
class WithOpenH264 : public testing::Test {
protected:
    WithOpenH264();
    ~WithOpenH264() override { library = OpenH264Record(); }

    OpenH264Record& library;
};
