#pragma once

#include "processor/check/CrashReport.h"

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Bytes of a packed picture.
inline size_t pictureBytes(PictureSize size) {
    return static_cast<size_t>(size.width) * static_cast<size_t>(size.height) * 12 / 8;
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileOwner = std::unique_ptr<std::FILE, FileCloser>;

// Pictures out of a Y4M file (8-bit 4:2:0 of an even size) or a raw one; all of it throws std::runtime_error.
class PictureReader {
public:
    // A raw file has no size of its own: it has pictures of `rawSize`.
    PictureReader(const std::string& file, PictureSize rawSize);
    bool read(Bytes& picture); // false: no further one

    PictureSize size;
    std::string rate = "25:1"; // pictures a second

private:
    std::string name;
    FileOwner file;
    bool isY4m = false;
};

// Writes a Y4M file, which has its name once it is complete.
class PictureWriter {
public:
    PictureWriter(const std::string& file, PictureSize size, const std::string& rate);
    ~PictureWriter();
    void write(const Bytes& picture);
    void finish();

private:
    std::string name, part;
    FileOwner file;
};

// A moving picture with every value of a byte in it, for a check without an input.
Bytes syntheticPicture(PictureSize size, int number);
