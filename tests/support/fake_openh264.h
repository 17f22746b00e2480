#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What a fake OpenH264 is told, and what it saw. Its records are bytes here: it was built with the layout of
// one version, whatever the headers of the build have.
struct FakeOpenH264 {
    unsigned version[4] = {};
    std::string calls; // the first letters of: Version, Create, Defaults, Initialize, Encode, destroy (X)
    std::vector<uint8_t> defaults;   // each byte of the record, as it was given
    std::vector<uint8_t> parameters; // as they came back
    std::vector<uint8_t> picture;
};

constexpr int fakeLayers = 3; // of a picture: layer i has i + 1 NAL units of 5 bytes of value i

// Exported by the fake libraries.
extern "C" __attribute__((visibility("default"))) FakeOpenH264* fakeOpenH264();
