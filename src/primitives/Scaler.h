#pragma once

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// What libswscale goes over: that is its context's to say, whatever picture it is given.
struct Extent {
    AVPixelFormat format;
    int width;
    int height;
    int rowBytes[4] = {};
    int rows[4] = {};

    Extent(AVPixelFormat pixels, int columns, int lines);
    bool hasPalette() const { return format == AV_PIX_FMT_PAL8; }
    int chromaShift() const { return av_pix_fmt_desc_get(format)->log2_chroma_h; }
    // libswscale takes no picture with a plane or its stride missing, but does not look for the palette.
    bool isIn(const uint8_t* const* planes, const int* strides) const;
};

// A picture of our own, in which libswscale can do no harm: its vector code reads and writes beyond the rows
// and faults on some unaligned planes, and what takes rows by pairs goes a row beyond an odd number of them.
class PaddedPicture {
public:
    // Behind each row, and above and below each plane: twice the 16 pixels of 4 bytes that the widest loop
    // takes at a time, and twice the row that a pair reaches over.
    static constexpr int marginBytes = 128, marginRows = 2;

    enum Rows { zeros, undefined };
    bool make(const Extent& extent, Rows content = zeros); // false without memory
    explicit operator bool() const { return memory != nullptr; }

    uint8_t* planes[4] = {};
    int strides[4] = {};

private:
    struct Deleter {
        void operator()(uint8_t* block) const;
    };
    std::unique_ptr<uint8_t, Deleter> memory;
};

struct ContextDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

// Rows of a source picture.
struct Slice {
    int first;
    int rows;
    int end() const { return first + rows; }
};

// What is known of a scaling context beside what libswscale keeps in it. It hangs on the context itself, in
// the place where each of FFmpeg's objects says what it is: the AVClass there is the beginning of a record of
// ours. So a context is libswscale's own address, and nothing is kept for the process.
class Scaler : private AVClass {
public:
    // sws_getCachedContext and sws_freeContext.
    static SwsContext* cached(SwsContext* earlier, int sourceWidth, int sourceHeight, AVPixelFormat source,
                              int targetWidth, int targetHeight, AVPixelFormat target, int flags);
    static void free(SwsContext* context);

    // A context that was made elsewhere may be freed there as well: it has a record for as long as it is used
    // or a picture is incomplete. Null without memory.
    struct Release {
        void operator()(Scaler* scaler) const;
    };
    using Use = std::unique_ptr<Scaler, Release>;
    static Use of(SwsContext* context);

    // sws_scale is two steps: this finds out and allocates what the slice needs. Returns isReady, or the
    // result for a slice with which nothing is to be done.
    static constexpr int isReady = 1, outOfOrder = -1;
    int prepare(Slice given);

    // After isReady: scales the slice, or puts it aside until its picture is complete, and returns the rows
    // that were written. Planes and strides are those of sws_scale; libswscale may go beyond the rows.
    int scale(const uint8_t* const* planes, const int* strides, uint8_t* const* targetPlanes,
              const int* targetStrides);

    // What libswscale goes over for the slice; whether it keeps to rows of the two pictures, in their order;
    // whether its vector code reads behind the last pixel of any row, as the fast bilinear scaler does, or of
    // a plane, as what converts pictures of several planes without scaling them does, which takes its samples
    // ahead.
    Extent sourceExtent() const { return {source.format, source.width, slice.rows}; }
    const Extent& targetExtent() const { return target; }
    bool keepsToItsRows() const;
    bool readsBehindRows() const { return flags & SWS_FAST_BILINEAR; }
    bool readsBehindPlanes() const;

private:
    using ContextOwner = std::unique_ptr<SwsContext, ContextDeleter>;
    enum Direction { none, down, up };

    Scaler(SwsContext* scaled, AVPixelFormat from, AVPixelFormat to, bool madeHere);
    static Scaler* recordOf(SwsContext* context);
    int option(const char* name) const;

    bool isWhole() const;
    bool isBayer() const;
    bool isScaled() const;
    bool isCascade() const;
    bool mayOverrunTables() const;
    bool countsXyzRows() const;
    bool endsTheProcess(int there) const;
    bool mustGatherAll() const;
    bool mustGather() const;
    bool makeYuvBetween();
    bool mayHaveBeenLimited() const;
    void learnSlices();
    void fillAlpha(const uint8_t* rows, int stride);
    void gather(const uint8_t* const* planes, const int* strides);
    const uint8_t* gatheredPlane(int plane) const;
    int scaleGathered(uint8_t* const* targetPlanes, const int* targetStrides);
    int scaleWhole(const uint8_t* const* planes, const int* strides, uint8_t* const* targetPlanes,
                   const int* targetStrides);

    const void* const laterFields[4] = {}; // of an AVClass that is longer than the one here
    SwsContext* const context;
    const AVClass* const original;
    AVPixelFormat requestedSource, requestedTarget; // libswscale says others for some
    const bool known;                               // made here, without filters and parameters
    const int flags;
    const Extent source, target;
    bool fillsAlpha = false; // of what it is given, before that is scaled
    const int chromaShift;   // from rows of the source to the rows of chroma that are taken

    // How many rows of the target are complete when so many of the source are there, or endsProcess. Empty
    // for a context that cannot be given slices.
    static constexpr int endsProcess = -1;
    std::vector<int> rowsComplete;
    bool learnt = false, someEndProcess = false, rereadsSlices = false;

    // The slice that is scaled, and the picture that was begun with it or before.
    Slice slice{};
    Direction coming = none;
    bool begins = false;
    Direction direction = none; // of the picture; none when it is complete
    int reached = 0;            // where its next slice begins or, upwards, ends
    int returned = 0;           // rows of the target that were returned for it
    bool gathers = false, gathersOnly = false;
    PaddedPicture gathered;

    PaddedPicture opaque; // the slice with its alpha, for contexts that fill it

    // For contexts that mayOverrunTables().
    ContextOwner toYuv, fromYuv;
    PaddedPicture between;
};
