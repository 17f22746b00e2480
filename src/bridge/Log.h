#pragma once

// Where the engines' lines go. While nobody has chosen, each is printed on the spot, as printf does it. A
// choice holds for every engine of this library in the process; no line then makes an engine's thread wait.

#include <cstddef>
#include <cstdint>

class Log {
public:
    enum class Destination { standard, discarded, kept };
    enum class Level : uint8_t { debug, info, warning, error };

    // To be called like printf; the text has the line's end in it.
    struct Line {
        [[gnu::format(printf, 2, 3)]] void operator()(const char* format, ...) const;

        const char* engine;
        Level level;
        bool onStandardError; // while nobody has chosen
    };

    // `of`: the engine, as the Java API calls it.
    constexpr explicit Log(const char* of)
        : debug{of, Level::debug, false}, info{of, Level::info, false}, error{of, Level::error, true},
          warning{of, Level::warning, false}, complaint{of, Level::warning, true} {}

    static Destination destination();
    // FFmpeg's log, which is one for the process, follows. To be called by one thread at a time.
    static void choose(Destination destination);

    // Bytes of a line that is kept; what is longer is cut.
    static constexpr size_t longestLine = 480;
    // The oldest line that is kept: its engine, a line's end, its text; 0 when there is none. To be called by
    // one thread at a time.
    static size_t take(char (&line)[longestLine], Level& level);
    // Lines for which there was no room, since the library was loaded.
    static uint64_t dropped();

    const Line debug, info, error, warning, complaint;
};
