// kelvane-module-check: finds what is wrong with a module before a server does.

#include "processor/check/ModuleCheck.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace {

constexpr char usage[] =
    "Usage: kelvane-module-check MODULE [--set KEY=VALUE]... [INPUT.y4m | INPUT.yuv]\n"
    "\n"
    "Leads a processing module through all that a pipeline may do with it, its pictures lying among memory "
    "that\n"
    "nobody may touch, and says in words what is wrong with it.\n"
    "\n"
    "  INPUT            pictures: 8-bit 4:2:0, Y4M or, with --picture, raw (default: moving stripes)\n"
    "  --set KEY=VALUE  a setting that the module is to take; name every key: each is tried with wrong "
    "values, too\n"
    "  --picture WxH    size of the pictures (640x360)\n"
    "  --frames N       pictures to process (all of the input, or 100)\n"
    "  -o OUT.y4m       the pictures that the module kept\n"
    "  --timeout SECONDS\n"
    "                   how long one call may take (20; 0: as long as it likes)\n"
    "  --plain          pictures from malloc and no report of crashes: for valgrind and the sanitizers, "
    "which\n"
    "                   watch that themselves\n"
    "  -h, --help       this text\n"
    "\n"
    "Exits with 0 when nothing is wrong, 1 when something is, 2 when the call was wrong.\n";

[[noreturn]] void wrongUsage(const std::string& reason) {
    std::fprintf(stderr, "kelvane-module-check: %s; try --help\n", reason.c_str());
    std::exit(2);
}

int number(const char* option, const char* text, int least, int most) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end || value < least || value > most)
        wrongUsage(std::string(option) + " takes a number from " + std::to_string(least) + " to " +
                   std::to_string(most) + ", not '" + text + "'");
    return static_cast<int>(value);
}

PictureSize pictureSize(const char* text) {
    const char* const by = std::strchr(text, 'x');
    if (!by) wrongUsage("--picture takes WIDTHxHEIGHT, not '" + std::string(text) + "'");
    return {number("--picture", std::string(text, static_cast<size_t>(by - text)).c_str(), 1, 8192),
            number("--picture", by + 1, 1, 8192)};
}

ModuleCheckOptions parse(int count, char** arguments) {
    constexpr option longOptions[] = {
        {"set", required_argument, nullptr, 's'},     {"picture", required_argument, nullptr, 'p'},
        {"frames", required_argument, nullptr, 'n'},  {"output", required_argument, nullptr, 'o'},
        {"timeout", required_argument, nullptr, 't'}, {"plain", no_argument, nullptr, 'P'},
        {"help", no_argument, nullptr, 'h'},          {}};
    ModuleCheckOptions options;
    for (int found; (found = getopt_long(count, arguments, "o:h", longOptions, nullptr)) != -1;) {
        switch (found) {
        case 's': {
            const char* const equals = std::strchr(optarg, '=');
            if (!equals) wrongUsage("--set takes KEY=VALUE, not '" + std::string(optarg) + "'");
            options.settings.emplace_back(std::string(optarg, static_cast<size_t>(equals - optarg)),
                                          equals + 1);
            break;
        }
        case 'p':
            options.picture = pictureSize(optarg);
            break;
        case 'n':
            options.pictures = number("--frames", optarg, 1, 1000000);
            break;
        case 'o':
            options.output = optarg;
            break;
        case 't':
            options.seconds = number("--timeout", optarg, 0, 86400);
            break;
        case 'P':
            options.plain = true;
            break;
        case 'h':
            std::fputs(usage, stdout);
            std::exit(0);
        default:
            std::exit((std::fputs("try --help\n", stderr), 2));
        }
    }
    if (optind == count) wrongUsage("no module is named");
    if (count - optind > 2) wrongUsage("one module and one input are all that it takes");
    options.module = arguments[optind];
    if (count - optind == 2) options.input = arguments[optind + 1];
    if (!options.output.empty() && (options.picture.width % 2 || options.picture.height % 2))
        wrongUsage("a Y4M file has pictures of an even size");
    return options;
}

} // namespace

int main(int count, char** arguments) {
    // What a module has printed shows even if it crashes in the middle of a line.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const ModuleCheckOptions options = parse(count, arguments);
    try {
        return checkModule(options) ? 1 : 0;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "kelvane-module-check: %s\n", exception.what());
        return 1;
    }
}
