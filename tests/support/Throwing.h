#pragma once

#include "support/recording_openh264.h"

// The calls of FFmpeg, Opus and OpenH264 that may throw are counted, and one of them does: an int. The
// program has functions of its own in front of the libraries' for that, and FFmpeg reaches OpenH264 through
// the recorder.
class ThrowingLibraries {
public:
    ThrowingLibraries(OpenH264Record& recorder, int throwAt); // the number of the call; 0 for none
    ~ThrowingLibraries();
    int calls() const;
};
