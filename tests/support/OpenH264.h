#pragma once

#include "support/recording_openh264.h"

#include <gtest/gtest.h>

// The recorder that stands in front of OpenH264 in the tests' working directory, reset for each test.
class WithOpenH264 : public testing::Test {
protected:
    WithOpenH264();
    ~WithOpenH264() override { library = OpenH264Record(); }

    OpenH264Record& library;
};
