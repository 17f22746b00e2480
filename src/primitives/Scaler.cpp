#include "primitives/Scaler.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace {

constexpr int alignment = 64; // of planes and strides, in bytes

const char className[] = "SWScaler"; // its address tells records of this library from others

const AVClass*& classOf(SwsContext* context) { return *reinterpret_cast<const AVClass**>(context); }

int divideUp(int number, int shift) { return AV_CEIL_RSHIFT(number, shift); }

constexpr int dropsChroma = SWS_SRC_V_CHR_DROP_MASK; // of these flags' rows of chroma, only some are taken

// Of pixels without alpha, libswscale makes a copy with alpha for a target that has it, whose rows end in
// memory that nobody wrote; the chroma of an odd last column takes that in. This is the copy's format.
AVPixelFormat withAlpha(AVPixelFormat format) {
    switch (format) {
    case AV_PIX_FMT_0RGB:
        return AV_PIX_FMT_ARGB;
    case AV_PIX_FMT_0BGR:
        return AV_PIX_FMT_ABGR;
    case AV_PIX_FMT_RGB0:
        return AV_PIX_FMT_RGBA;
    case AV_PIX_FMT_BGR0:
        return AV_PIX_FMT_BGRA;
    default:
        return format;
    }
}

using ContextOwner = std::unique_ptr<SwsContext, ContextDeleter>;

// A context beside a caller's. It prints nothing.
ContextOwner makeContext(int width, int height, AVPixelFormat source, int targetWidth, int targetHeight,
                         AVPixelFormat target, int flags) {
    return ContextOwner(sws_getContext(width, height, source, targetWidth, targetHeight, target,
                                       flags & ~SWS_PRINT_INFO, nullptr, nullptr, nullptr));
}

// How much larger one side of a target is to be for libswscale to scale in one context: for filters that are
// too long it makes two, but only of pictures that become less than a quarter, and refuses the others.
int enlargement(int from, int to) { return 1 + from / to / 4; }

// The last row of the source that each row of the target takes, by libswscale's own filters: a narrow picture
// of one plane, which is safe in slices of a row, shows when its rows come out. Empty when that fails.
std::vector<int> lastRowsTaken(int height, int targetHeight, int flags) {
    constexpr AVPixelFormat gray = AV_PIX_FMT_GRAY8;
    constexpr int width = 16;
    const Extent row(gray, width, 1), target(gray, width * enlargement(height, targetHeight), targetHeight);
    const ContextOwner context =
        makeContext(width, height, gray, target.width, targetHeight, gray, flags & ~dropsChroma);
    PaddedPicture from, to;
    std::vector<int> rows;
    if (!context || !from.make(row) || !to.make(target)) return rows;
    for (int i = 0; i < height; ++i) {
        const int complete = sws_scale(context.get(), from.planes, from.strides, i, 1, to.planes, to.strides);
        rows.insert(rows.end(), static_cast<size_t>(std::max(complete, 0)), i);
    }
    if (rows.size() != static_cast<size_t>(targetHeight)) rows.clear();
    return rows;
}

} // namespace

Extent::Extent(AVPixelFormat pixels, int columns, int lines) : format(pixels), width(columns), height(lines) {
    av_image_fill_linesizes(rowBytes, format, width);
    for (int plane = 0; plane < 4; ++plane)
        rows[plane] = divideUp(height, plane == 1 || plane == 2 ? chromaShift() : 0);
    if (hasPalette()) rowBytes[1] = AVPALETTE_SIZE, rows[1] = 1;
}

bool Extent::isIn(const uint8_t* const* planes, const int* strides) const {
    for (int plane = 0; plane < 4; ++plane) {
        const bool palette = plane == 1 && hasPalette();
        if (rowBytes[plane] > 0 && (!planes[plane] || (!strides[plane] && !palette))) return false;
    }
    return true;
}

void PaddedPicture::Deleter::operator()(uint8_t* block) const {
    ::operator delete (block, std::align_val_t{alignment});
}

bool PaddedPicture::make(const Extent& extent, Rows content) {
    size_t size = 0, begins[4];
    for (int plane = 0; plane < 4; ++plane) {
        begins[plane] = size;
        if (extent.rowBytes[plane] <= 0) continue;
        strides[plane] = FFALIGN(extent.rowBytes[plane] + marginBytes, alignment);
        size +=
            static_cast<size_t>(extent.rows[plane] + 2 * marginRows) * static_cast<size_t>(strides[plane]);
    }
    memory.reset(static_cast<uint8_t*>(::operator new (size, std::align_val_t{alignment}, std::nothrow)));
    if (!memory) return false;
    if (content == zeros) std::memset(memory.get(), 0, size);
    for (int plane = 0; plane < 4; ++plane) {
        planes[plane] = nullptr;
        if (extent.rowBytes[plane] <= 0) continue;
        const size_t margin = static_cast<size_t>(strides[plane]) * marginRows;
        planes[plane] = memory.get() + begins[plane] + margin;
        std::memset(planes[plane] - margin, 0, margin);
        std::memset(planes[plane] + int64_t{strides[plane]} * extent.rows[plane], 0, margin);
    }
    return true;
}

Scaler::Scaler(SwsContext* scaled, AVPixelFormat from, AVPixelFormat to, bool madeHere)
    : AVClass(*classOf(scaled)), context(scaled), original(classOf(scaled)), requestedSource(from),
      requestedTarget(to), known(madeHere), flags(option("sws_flags")),
      source(static_cast<AVPixelFormat>(option("src_format")), option("srcw"), option("srch")),
      target(static_cast<AVPixelFormat>(option("dst_format")), option("dstw"), option("dsth")),
      chromaShift(source.chromaShift() + ((flags & dropsChroma) >> SWS_SRC_V_CHR_DROP_SHIFT)) {
    class_name = className;
    if (from == AV_PIX_FMT_NONE) requestedSource = source.format, requestedTarget = target.format;
}

int Scaler::option(const char* name) const {
    int64_t value = 0;
    av_opt_get_int(context, name, 0, &value);
    return static_cast<int>(value);
}

Scaler* Scaler::recordOf(SwsContext* context) {
    auto* described = const_cast<AVClass*>(context ? classOf(context) : nullptr);
    return described && described->class_name == className ? static_cast<Scaler*>(described) : nullptr;
}

SwsContext* Scaler::cached(SwsContext* earlier, int sourceWidth, int sourceHeight, AVPixelFormat source,
                           int targetWidth, int targetHeight, AVPixelFormat target, int flags) {
    // libswscale does not look whether it is given a format.
    if (!sws_isSupportedInput(source) || !sws_isSupportedOutput(target)) {
        free(earlier);
        return nullptr;
    }
    // Fast bilinear scaling divides by the chroma's width less 2. libswscale takes bilinear scaling for
    // pictures that are too narrow, but not where only their chroma is.
    if (flags & SWS_FAST_BILINEAR && !(flags & SWS_BILINEAR) && targetWidth > 0 &&
        divideUp(targetWidth, av_pix_fmt_desc_get(target)->log2_chroma_w) == 2)
        flags ^= SWS_FAST_BILINEAR | SWS_BILINEAR;
    const bool fills = sourceWidth % 2 != 0 && withAlpha(source) != source &&
                       av_pix_fmt_desc_get(target)->flags & AV_PIX_FMT_FLAG_ALPHA;
    if (fills) { // for which libswscale does not use one again either
        free(std::exchange(earlier, nullptr));
        source = withAlpha(source);
    }
    std::unique_ptr<Scaler> record(recordOf(earlier));
    ContextOwner made(sws_getCachedContext(earlier, sourceWidth, sourceHeight, source, targetWidth,
                                           targetHeight, target, flags, nullptr, nullptr, nullptr));
    if (!made) return nullptr;
    // A new one may have the address of the earlier.
    if (record && classOf(made.get()) == record.get()) {
        static_cast<void>(record.release());
        return made.release();
    }
    if (made.get() == earlier && !record)
        return made.release(); // perhaps the same, of whose making nothing is known
    auto* attached = new (std::nothrow) Scaler(made.get(), source, target, true);
    if (!attached) return nullptr;
    attached->fillsAlpha = fills;
    classOf(made.get()) = attached;
    return made.release();
}

void Scaler::free(SwsContext* context) {
    const std::unique_ptr<Scaler> record(recordOf(context));
    sws_freeContext(context);
}

Scaler::Use Scaler::of(SwsContext* context) {
    if (Scaler* record = recordOf(context)) return Use(record);
    auto* attached = new (std::nothrow) Scaler(context, AV_PIX_FMT_NONE, AV_PIX_FMT_NONE, false);
    if (attached) classOf(context) = attached;
    return Use(attached);
}

void Scaler::Release::operator()(Scaler* scaler) const {
    if (scaler->known || scaler->direction != none) return;
    classOf(scaler->context) = scaler->original;
    delete scaler;
}

bool Scaler::isWhole() const { return slice.rows == source.height; }

bool Scaler::isBayer() const { return av_pix_fmt_desc_get(source.format)->flags & AV_PIX_FMT_FLAG_BAYER; }

bool Scaler::isScaled() const { return source.width != target.width || source.height != target.height; }

// Whether the context is two, one behind the other, which libswscale forgets when it is given slices: it
// calls a null pointer. That is so for mosaics, except for the two formats that it makes of them itself, and
// where a filter is too long for one context. (Too long a vertical filter shows in lastRowsTaken.)
bool Scaler::isCascade() const {
    if (isBayer())
        return isScaled() || (target.format != AV_PIX_FMT_RGB24 && target.format != AV_PIX_FMT_YUV420P);
    return !makeContext(source.width, 1, source.format, target.width, enlargement(source.width, target.width),
                        target.format, flags);
}

// libswscale turns YUV into RGB of up to 8 bits by tables with room for values from -512 to 767, and limits
// what it looks up to that of a filtered sample times its vertical filter: -256 to 255 times the sum of the
// coefficients' magnitudes. That sum is below 2 for all scalers but sinc, with which an ordinary picture with
// sharp edges can address what lies beside the tables. Full chroma interpolation uses no tables, and no
// filter reaches the tables in conversions between pictures of the same size and between rows that are not
// scaled.
bool Scaler::mayOverrunTables() const {
    const AVPixFmtDescriptor* to = av_pix_fmt_desc_get(target.format);
    const bool usesTables = to->flags & AV_PIX_FMT_FLAG_RGB && !(to->flags & AV_PIX_FMT_FLAG_PLANAR) &&
                            to->comp[0].depth <= 8 && !(flags & SWS_FULL_CHR_H_INT);
    if (!(flags & SWS_SINC) || !usesTables || (source.height == target.height && chromaShift == 0))
        return false;
    const AVPixelFormat converted[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUVA420P};
    const bool converts = std::ranges::find(converted, source.format) != std::end(converted) && !isScaled() &&
                          !(flags & (SWS_ACCURATE_RND | SWS_ERROR_DIFFUSION)) && target.height % 2 == 0 &&
                          !(to->flags & AV_PIX_FMT_FLAG_BE);
    return !converts;
}

// Planar YUV is limited to its range when it is written. Where nothing was, the picture stays within the
// tables. Otherwise RGB is made from it, which takes no filter any more.
bool Scaler::makeYuvBetween() {
    if (between) return true;
    const bool alpha = av_pix_fmt_desc_get(source.format)->flags & av_pix_fmt_desc_get(target.format)->flags &
                       AV_PIX_FMT_FLAG_ALPHA;
    const AVPixelFormat yuv = alpha                 ? AV_PIX_FMT_YUVA422P
                              : option("src_range") ? AV_PIX_FMT_YUVJ422P
                                                    : AV_PIX_FMT_YUV422P;
    toYuv =
        makeContext(source.width, source.height, requestedSource, target.width, target.height, yuv, flags);
    fromYuv = makeContext(target.width, target.height, yuv, target.width, target.height, requestedTarget,
                          flags & ~dropsChroma);
    return toYuv && fromYuv && between.make({yuv, target.width, target.height});
}

// libswscale keeps the rows that a row of the target still waits for in two buffers, of luma and of chroma,
// which hold what its filter takes and a number of rows ahead. It ends the process over a slice with which
// more wait. How far ahead that is, it reckons from its filters when it makes the context; that reckoning is
// repeated here, and with it the row of the target that each number of rows of the source comes to.
void Scaler::learnSlices() {
    if (learnt) return;
    learnt = true;
    if (!known || mayOverrunTables() || isCascade()) return;
    const int targetShift = target.chromaShift(), chromaHeight = divideUp(target.height, targetShift);
    const bool twoScalers = flags & SWS_BICUBLIN;
    const auto scaler = [&](int other) { return twoScalers ? (flags & ~SWS_BICUBLIN) | other : flags; };
    const std::vector<int> luma = lastRowsTaken(source.height, target.height, scaler(SWS_BICUBIC));
    const std::vector<int> chroma =
        lastRowsTaken(divideUp(source.height, chromaShift), chromaHeight, scaler(SWS_BILINEAR));
    if (luma.empty() || chroma.empty()) return;
    const auto lumaOf = [&](int row) { return luma[static_cast<size_t>(row)]; };
    const auto chromaOf = [&](int row) { return chroma[static_cast<size_t>(row)]; };

    constexpr int leastAhead = 4;
    int lumaAhead = leastAhead, chromaAhead = leastAhead;
    for (int row = 0; row < target.height; ++row) {
        const auto chromaRow = static_cast<int>(int64_t{row} * chromaHeight / target.height);
        const int chromaEnd = std::max(lumaOf(row) >> chromaShift, chromaOf(chromaRow));
        lumaAhead = std::max(lumaAhead, (chromaEnd << chromaShift) - lumaOf(row) - 1);
        chromaAhead = std::max(chromaAhead, chromaEnd - chromaOf(chromaRow) - 1);
    }
    // With these two a row of the target is made of one or two rows, however many lie between them and the
    // next. Over a gap, rows that waited are taken once more, from the slice with which they came.
    const auto skips = [](const std::vector<int>& rows) {
        return std::ranges::adjacent_find(rows, [](int row, int next) { return next > row + 1; }) !=
               rows.end();
    };
    rereadsSlices = flags & (SWS_POINT | SWS_FAST_BILINEAR) && (skips(luma) || skips(chroma));

    rowsComplete.assign(static_cast<size_t>(source.height) + 1, 0);
    const int pair = (1 << targetShift) - 1; // rows with the same chroma come out together
    for (int there = 0, row = 0; there <= source.height; ++there) {
        const int chromaThere = divideUp(there, chromaShift);
        while (row < target.height && lumaOf(std::min(row | pair, target.height - 1)) < there &&
               chromaOf(row >> targetShift) < chromaThere)
            ++row;
        const bool ends =
            row < target.height && (there - lumaOf(row) - 1 > lumaAhead ||
                                    chromaThere - chromaOf(row >> targetShift) - 1 > chromaAhead);
        rowsComplete[static_cast<size_t>(there)] = ends ? endsProcess : row;
        someEndProcess |= ends && there % (1 << chromaShift) == 0;
    }
    someEndProcess |= countsXyzRows() && source.height > target.height;
}

// Rows of XYZ are made from rows of RGB where libswscale has written them. It takes the end of the slice for
// that place while it has written none, and ends the process when that lies below the target.
bool Scaler::countsXyzRows() const {
    return requestedTarget == AV_PIX_FMT_XYZ12LE || requestedTarget == AV_PIX_FMT_XYZ12BE;
}

bool Scaler::endsTheProcess(int there) const {
    const int complete = rowsComplete[static_cast<size_t>(there)];
    return complete == endsProcess || (complete == 0 && countsXyzRows() && slice.end() > target.height);
}

int Scaler::prepare(Slice given) {
    slice = given;
    if (slice.first < 0 || slice.rows < 0 || slice.rows > source.height - slice.first) return AVERROR(EINVAL);
    const int group = isBayer() ? 2 : 1 << chromaShift; // rows that share their chroma
    if (slice.first % group != 0 || (slice.rows % group != 0 && slice.end() != source.height) ||
        (isBayer() && slice.rows < 2))
        return AVERROR(EINVAL);
    if (slice.rows == 0) return 0;
    if (fillsAlpha && !opaque.make(sourceExtent(), PaddedPicture::undefined)) return AVERROR(ENOMEM);
    if (mayOverrunTables() && !makeYuvBetween()) return AVERROR(ENOMEM);
    if (isWhole()) return isReady;

    begins = true;
    if (slice.first == 0 && direction != up) {
        coming = down;
    } else if (slice.end() == source.height && direction != down) {
        coming = up;
    } else {
        if (direction == none) return 0; // in the middle
        if (reached != (direction == down ? slice.first : slice.end())) return outOfOrder;
        begins = false;
        return isReady;
    }
    try {
        learnSlices();
    } catch (const std::bad_alloc&) {
        rowsComplete.clear();
    }
    if (mustGather() && !gathered && !gathered.make(source)) return AVERROR(ENOMEM);
    return isReady;
}

// Whether none of the picture that comes may be given to libswscale in slices. Upwards, it begins a row of
// chroma too high where the last one is of fewer rows, and further off where only some rows of chroma are
// taken.
bool Scaler::mustGatherAll() const {
    const auto endsAmidChroma = [](int height, int shift) { return height % (1 << shift) != 0; };
    const bool dropsPlanesRows = flags & dropsChroma && source.rowBytes[1] > 0 && !source.hasPalette();
    return rowsComplete.empty() ||
           (coming == up && (endsAmidChroma(source.height, chromaShift) || dropsPlanesRows ||
                             endsAmidChroma(target.height, target.chromaShift())));
}

bool Scaler::mustGather() const { return someEndProcess || rereadsSlices || mustGatherAll(); }

bool Scaler::readsBehindPlanes() const { return !isScaled() && source.rowBytes[1] > 0; }

bool Scaler::keepsToItsRows() const {
    if (isWhole()) return known && direction != up;
    const int group = std::max({2, 1 << source.chromaShift(), 1 << target.chromaShift()});
    return (begins ? coming : direction) == down && slice.first % group == 0 &&
           (slice.rows % group == 0 || slice.end() == source.height);
}

int Scaler::scale(const uint8_t* const* planes, const int* strides, uint8_t* const* targetPlanes,
                  const int* targetStrides) {
    if (!source.isIn(planes, strides) || !target.isIn(targetPlanes, targetStrides)) return 0;
    if (fillsAlpha) {
        fillAlpha(planes[0], strides[0]);
        planes = opaque.planes;
        strides = opaque.strides;
    }
    if (isWhole()) {
        direction = none;
        return scaleWhole(planes, strides, targetPlanes, targetStrides);
    }
    if (begins) {
        direction = coming;
        gathersOnly = mustGatherAll();
        gathers = mustGather();
        returned = 0;
    }
    const int there = direction == down ? slice.end() : source.height - slice.first;
    gathersOnly = gathersOnly || endsTheProcess(there);
    int result = 0;
    if (gathers) gather(planes, strides);
    if (!gathersOnly) {
        result = gathers ? scaleGathered(targetPlanes, targetStrides)
                         : sws_scale(context, planes, strides, slice.first, slice.rows, targetPlanes,
                                     targetStrides);
        returned += std::max(result, 0);
    } else if (there == source.height) {
        result = scaleWhole(gathered.planes, gathered.strides, targetPlanes, targetStrides);
        if (result > 0) result -= returned;
    }
    reached = direction == down ? slice.end() : slice.first;
    if (there == source.height) direction = none;
    return result;
}

int Scaler::scaleWhole(const uint8_t* const* planes, const int* strides, uint8_t* const* targetPlanes,
                       const int* targetStrides) {
    if (between) {
        if (const int result =
                sws_scale(toYuv.get(), planes, strides, 0, source.height, between.planes, between.strides);
            result <= 0)
            return result;
        if (mayHaveBeenLimited())
            return sws_scale(fromYuv.get(), between.planes, between.strides, 0, target.height, targetPlanes,
                             targetStrides);
    }
    return sws_scale(context, planes, strides, 0, source.height, targetPlanes, targetStrides);
}

// What lies behind a row is the one that follows in memory, as in a packed picture, and behind the last one
// its own last pixel.
void Scaler::fillAlpha(const uint8_t* rows, int stride) {
    constexpr int pixelBytes = 4;
    const int alphaAt = av_pix_fmt_desc_get(source.format)->comp[3].offset, size = source.rowBytes[0];
    for (int row = 0; row < slice.rows; ++row) {
        const uint8_t* from = rows + int64_t{row} * stride;
        const int next = row + (stride > 0 ? 1 : -1);
        const bool hasNext = next >= 0 && next < slice.rows;
        uint8_t* to = opaque.planes[0] + int64_t{row} * opaque.strides[0];
        std::copy_n(from, size, to);
        std::copy_n(hasNext ? rows + int64_t{next} * stride : from + size - pixelBytes, pixelBytes,
                    to + size);
        for (int i = alphaAt; i < size + pixelBytes; i += pixelBytes)
            to[i] = UINT8_MAX;
    }
}

bool Scaler::mayHaveBeenLimited() const {
    const Extent yuv(AV_PIX_FMT_YUV422P, target.width, target.height);
    const int firstFiltered = source.height == target.height ? 1 : 0;
    for (int plane = firstFiltered; plane < 3; ++plane)
        for (int row = 0; row < yuv.rows[plane]; ++row) {
            const uint8_t* samples = between.planes[plane] + int64_t{row} * between.strides[plane];
            if (std::any_of(samples, samples + yuv.rowBytes[plane],
                            [](uint8_t sample) { return sample == 0 || sample == UINT8_MAX; }))
                return true;
        }
    return false;
}

// The slice's planes in the gathered picture.
const uint8_t* Scaler::gatheredPlane(int plane) const {
    if (!gathered.planes[plane] || (plane == 1 && source.hasPalette())) return gathered.planes[plane];
    const int shift = plane == 1 || plane == 2 ? source.chromaShift() : 0;
    return gathered.planes[plane] + int64_t{slice.first >> shift} * gathered.strides[plane];
}

int Scaler::scaleGathered(uint8_t* const* targetPlanes, const int* targetStrides) {
    const uint8_t* const planes[] = {gatheredPlane(0), gatheredPlane(1), gatheredPlane(2), gatheredPlane(3)};
    return sws_scale(context, planes, gathered.strides, slice.first, slice.rows, targetPlanes, targetStrides);
}

// The chroma of an odd last column takes in the pixel behind the row.
void Scaler::gather(const uint8_t* const* planes, const int* strides) {
    int pixelBytes[4];
    av_image_fill_max_pixsteps(pixelBytes, nullptr, av_pix_fmt_desc_get(source.format));
    const Extent there = sourceExtent();
    for (int plane = 0; plane < 4; ++plane) {
        if (there.rowBytes[plane] <= 0) continue;
        const bool hasNext =
            source.width % 2 != 0 && there.rowBytes[plane] == source.width * pixelBytes[plane];
        const int taken = there.rowBytes[plane] + (hasNext ? pixelBytes[plane] : 0);
        auto* to = const_cast<uint8_t*>(gatheredPlane(plane));
        for (int row = 0; row < there.rows[plane]; ++row)
            std::memcpy(to + int64_t{row} * gathered.strides[plane],
                        planes[plane] + int64_t{row} * strides[plane], static_cast<size_t>(taken));
    }
}
