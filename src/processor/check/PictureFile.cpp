#include "processor/check/PictureFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

[[noreturn]] void fail(const std::string& file, const std::string& reason) {
    throw std::runtime_error(file + ": " + reason);
}

FileOwner open(const std::string& name, const char* mode) {
    FileOwner file(std::fopen(name.c_str(), mode));
    if (!file) fail(name, std::strerror(errno));
    return file;
}

// A header's line; not endless, and without its end.
std::string line(std::FILE* file) {
    char text[1024] = {};
    if (!std::fgets(text, sizeof text, file)) return "";
    return std::string(text, std::strcspn(text, "\n"));
}

} // namespace

PictureReader::PictureReader(const std::string& path, PictureSize rawSize)
    : size(rawSize), name(path), file(open(path, "rb")) {
    std::istringstream header(line(file.get()));
    std::string word;
    header >> word;
    isY4m = word == "YUV4MPEG2";
    if (!isY4m) {
        if (size.width == 0) fail(name, "no Y4M file; a raw one needs --picture WxH");
        std::rewind(file.get());
        return;
    }
    std::string chroma = "420";
    while (header >> word) {
        const std::string value = word.substr(1);
        if (word[0] == 'W') size.width = std::atoi(value.c_str());
        if (word[0] == 'H') size.height = std::atoi(value.c_str());
        if (word[0] == 'F') rate = value;
        if (word[0] == 'C') chroma = value;
    }
    if (chroma != "420" && chroma != "420jpeg" && chroma != "420mpeg2" && chroma != "420paldv")
        fail(name, "its pictures are " + chroma + ", not 8-bit 4:2:0, which is all that a module gets");
    if (size.width <= 0 || size.height <= 0 || size.width > 65535 || size.height > 65535 || size.width % 2 ||
        size.height % 2)
        fail(name, "its width and height are to be even and from 2 to 65534");
}

bool PictureReader::read(Bytes& picture) {
    picture.resize(pictureBytes(size));
    if (isY4m) {
        const std::string header = line(file.get());
        if (header.empty()) return false;
        if (header.compare(0, 5, "FRAME") != 0) fail(name, "damaged: a picture without FRAME");
    }
    const size_t got = std::fread(picture.data(), 1, picture.size(), file.get());
    if (got == 0 && !isY4m) return false;
    if (got != picture.size()) fail(name, "ends in the middle of a picture");
    return true;
}

PictureWriter::PictureWriter(const std::string& path, PictureSize size, const std::string& rate)
    : name(path), part(path + ".part"), file(open(part, "wb")) {
    removeAtCrash(part);
    std::fprintf(file.get(), "YUV4MPEG2 W%d H%d F%s Ip A1:1 C420mpeg2\n", size.width, size.height,
                 rate.c_str());
}

PictureWriter::~PictureWriter() {
    if (file) unlink(part.c_str());
    removeAtCrash("");
}

void PictureWriter::write(const Bytes& picture) {
    std::fputs("FRAME\n", file.get());
    if (std::fwrite(picture.data(), 1, picture.size(), file.get()) != picture.size())
        fail(part, std::strerror(errno));
}

void PictureWriter::finish() {
    if (std::fflush(file.get()) != 0 || std::rename(part.c_str(), name.c_str()) != 0)
        fail(name, std::strerror(errno));
    file.reset();
}

Bytes syntheticPicture(PictureSize size, int number) {
    Bytes picture(pictureBytes(size));
    unsigned char* out = picture.data();
    for (int plane = 0; plane < 3; ++plane) {
        const int width = plane ? size.width / 2 : size.width, height = plane ? size.height / 2 : size.height;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                *out++ = static_cast<unsigned char>(x * 3 + y * 5 + (x * y >> 4) + number * 7 + plane * 40);
    }
    return picture;
}
