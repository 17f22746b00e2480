#pragma once

#include "bridge/Owners.h"
#include "bridge/Registries.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

// How the pictures of a track are to be shown; 0 is the ordinary case or "not told".
struct PictureFormat {
    int width = 0, height = 0;                   // pixels
    int pixelWidth = 0, pixelHeight = 0;         // shape of a pixel
    int rotation = 0;                            // degrees clockwise: 0, 90, 180 or 270
    int range = 0;                               // 1: 16 to 235, 2: 0 to 255
    int primaries = 0, transfer = 0, matrix = 0; // by H.264's numbers
};

// What the last cut() put into a fragment of one track, in ticks of the track.
struct TrackRun {
    int64_t decodeTime = 0;
    int64_t presentationTime = 0; // of the unit that is shown first
    int64_t duration = 0;
    int units = 0;
    bool key = false; // it begins with a key unit
};

// A unit of one track. Times are in ticks of the track.
struct MuxedUnit {
    PacketOwner packet; // has the bytes
    int64_t presentationTime = 0, decodingTime = 0;
    int64_t duration = 0; // 0: until the next unit
    bool key = false;
};

// Writes access units into a container, by libavformat's muxers. What it makes is kept in memory, as pieces
// with their places, until it is taken. Results below 0 are FFmpeg's errors or the refusals that the Java
// class lists; a refusal changes nothing.
class Muxer {
public:
    enum Codec { h264, aac, mp3, opus, pcm, codecs };
    enum Option { fragmented = 1, seekable = 2, fastStart = 4 };

    // A run of bytes, or the order to move all that lies at `place` and behind it by `size` bytes.
    struct Piece {
        bool moves = false;
        int64_t place = 0;
        int64_t size = 0;
    };

    int64_t handle = 0;

    // False when there is no such format, or no memory.
    bool open(const char* formatName, int options);

    // Tracks come first and are numbered from 0. `parameterSets` are in byte-stream form.
    int addPictures(const PictureFormat& format, int ticksPerSecond, std::span<const uint8_t> parameterSets);
    // A tick is one sample. `priming`: samples at the start that are not sound.
    int addSound(Codec codec, int sampleRate, int channels, int priming,
                 std::span<const uint8_t> configuration);
    int label(int track, const char* language, const char* name);
    // Writes what comes ahead of the units. `firstFragment`: the number of the first one, from 1.
    int begin(int firstFragment);

    int write(int track, MuxedUnit unit);
    // Ends a fragment. `next`: when the next unit of track 0 is decoded; INT64_MIN when that is not known.
    int cut(int64_t next);
    // Writes what comes behind the units.
    int finish();

    const TrackRun* run(int track) const;

    // What is to be taken next; null when there is nothing.
    const Piece* next() const { return taken < pieces.size() ? &pieces[taken] : nullptr; }
    const uint8_t* nextBytes() const { return bytes.data() + takenBytes; }
    void take();
    int64_t pending() const { return static_cast<int64_t>(bytes.size() - takenBytes); }

    void close();

private:
    struct Track {
        AVStream* stream = nullptr;
        Codec codec = h264;
        AVRational tick{};
        FilterOwner annotation; // writes the picture format into parameter sets
        // Of a fragment, which is made at once: FFmpeg's code and data are cold after every encoded picture,
        // and one unit then takes ten times as long as in a row of them.
        std::vector<MuxedUnit> queue;
        MuxedUnit held; // waits for the next one, which tells how long it lasts
        bool begun = false, written = false;
        int64_t lastTime = 0;     // decoding time of the last unit
        int64_t lastDuration = 0; // of the last unit that was written
        int64_t shift = 0;        // of decoding times in fragments
        TrackRun run, finished;
    };

    Track* addTrack(Codec codec, AVRational tick);
    int annotate(Track& track, const PictureFormat& format);
    int chooseOptions(int firstFragment, AVDictionary** options) const;
    static int64_t shiftOf(const MuxedUnit& first);
    int keepDecodingTimes(const Track& track);
    int refusal(const Track& track, const MuxedUnit& unit) const;
    int pass(Track& track, MuxedUnit unit);
    int mux(Track& track, MuxedUnit unit);
    int put(Track& track, MuxedUnit& unit);
    int releaseHeld(Track& track, int64_t end);
    int answer(int result);
    bool keepsDurations() const;

    static int acceptBytes(void* muxer, uint8_t* data, int size);
    static int64_t seek(void* muxer, int64_t place, int whence);
    static int openStream(AVFormatContext* format, AVIOContext** stream, const char*, int flags,
                          AVDictionary**);
    static void closeStream(AVFormatContext* format, AVIOContext* stream);

    std::string name; // of the format
    int settings = 0;
    StreamOwner stream;
    FormatOwner format; // destroyed ahead of its stream
    std::vector<Track> tracks;
    bool begun = false, finished = false;
    int failure = 0; // libavformat's first error: what it holds is not to be relied on any more
    int64_t fragmentSize = 0;
    int64_t firstWritten = 0; // FLV: decoding time of the first unit of all, in milliseconds
    bool anyWritten = false;

    std::vector<uint8_t> bytes; // of all pieces
    std::vector<Piece> pieces;
    size_t taken = 0, takenBytes = 0;
    int64_t place = 0, length = 0; // of the output
    bool moving = false;
};

using MuxerContext = CodecRegistry<Muxer>;
