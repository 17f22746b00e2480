#include "container/Muxer.h"

#include "bridge/JavaCall.h"
#include "bridge/StartCodes.h"
#include "com_kelvane_media_transform_codec_Muxer.h"

extern "C" {
#include <libavutil/intreadwrite.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>

[[maybe_unused]] static MuxerContext muxer_ctx;

namespace {

#define REFUSAL(name) constexpr int name = com_kelvane_media_transform_codec_Muxer_##name
REFUSAL(WRONG_CALL);
REFUSAL(WRONG_UNIT);
REFUSAL(NOT_RISING);
REFUSAL(SHOWN_BEFORE_DECODED);
REFUSAL(OUT_OF_RANGE);
REFUSAL(TOO_EARLY);
REFUSAL(FRAGMENT_FULL);
REFUSAL(LEFT_OUT);
#undef REFUSAL

constexpr int64_t unknown = INT64_MIN;
constexpr int streamBuffer = 8192;                   // bytes; longer runs go round it in pieces
constexpr size_t keptCapacity = 1 << 16;             // bytes that stay allocated for what comes next
constexpr int64_t fragmentLimit = int64_t{64} << 20; // bytes
constexpr int unitLimit = 32 << 20;                  // bytes
constexpr int flvLimit = (1 << 24) - 16;             // a tag's length has 24 bits
constexpr int adtsLimit = (1 << 13) - 1 - 7;         // a frame's length has 13 bits
constexpr int64_t longestSeconds = int64_t{1} << 32;
constexpr int64_t longestDistance = INT_MAX / 2; // in the container's ticks, which MP4 keeps in 32 bits
constexpr int tracksLimit = 64;
constexpr int64_t usualRate = 25;          // pictures a second, of a single picture
constexpr int64_t transportLead = 700'000; // microseconds from the clock's start to the first unit's decoding
constexpr int adtsHeader = 7, adtsHeaderWithChecksum = 9;

constexpr AVCodecID codecIds[Muxer::codecs] = {AV_CODEC_ID_H264, AV_CODEC_ID_AAC, AV_CODEC_ID_MP3,
                                               AV_CODEC_ID_OPUS, AV_CODEC_ID_PCM_S16LE};

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool startsWithCode(const uint8_t* bytes, int size) {
    return size > 3 && bytes[0] == 0 && bytes[1] == 0 &&
           (bytes[2] == 1 || (size > 4 && bytes[2] == 0 && bytes[3] == 1));
}

// Whether there are parameter sets ahead of the first slice.
bool hasParameterSets(const uint8_t* bytes, int size) {
    constexpr int slice = 1, idrSlice = 5, sequenceParameters = 7;
    const uint8_t* const end = bytes + size;
    for (const uint8_t* at = behindStartCode(bytes, end); at && at < end; at = behindStartCode(at, end)) {
        const int type = *at & 31;
        if (type == sequenceParameters) return true;
        if (type == slice || type == idrSlice) return false;
    }
    return false;
}

// How many bytes of an AAC unit are an ADTS header, which no container but ADTS wants: the muxers write it
// where it belongs.
int adtsHeaderOf(const uint8_t* bytes, int size) {
    if (size < adtsHeader || bytes[0] != 0xFF || (bytes[1] & 0xF6) != 0xF0) return 0;
    return bytes[1] & 1 ? adtsHeader : adtsHeaderWithChecksum;
}

// In samples at 48 kHz, by the packet's first bytes; 0 when it is none.
int opusDuration(const uint8_t* packet, int size) {
    constexpr int silk[] = {480, 960, 1920, 2880}, hybrid[] = {480, 960}, celt[] = {120, 240, 480, 960};
    const int kind = packet[0] >> 3;
    const int frame = kind < 12 ? silk[kind & 3] : kind < 16 ? hybrid[kind & 1] : celt[kind & 3];
    const int frames = (packet[0] & 3) == 0 ? 1 : (packet[0] & 3) < 3 ? 2 : size > 1 ? packet[1] & 63 : 0;
    return frame * frames;
}

// What the memory cannot hold is FFmpeg's ENOMEM here too.
template <class Work>
int guarded(const Work& work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return AVERROR(ENOMEM);
    }
}

int setConfiguration(AVCodecParameters& codec, std::span<const uint8_t> bytes) {
    codec.extradata = static_cast<uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!codec.extradata) return AVERROR(ENOMEM);
    std::copy(bytes.begin(), bytes.end(), codec.extradata);
    codec.extradata_size = static_cast<int>(bytes.size());
    return 0;
}

} // namespace

bool Muxer::open(const char* formatName, int options) {
    const bool isoBase = isOneOf(formatName, {"mp4", "mov"});
    if (!isoBase && !isOneOf(formatName, {"mpegts", "flv", "matroska", "ogg", "h264", "adts", "wav"}))
        return false;
    if (options & fragmented && (std::string_view(formatName) != "mp4" || options != fragmented))
        return false;
    if (isoBase && !(options & (fragmented | seekable)))
        return false; // sizes are written when they are known
    if (options & fastStart && !isoBase) return false;
    av_log_set_level(AV_LOG_QUIET);
    return guarded([&] {
               name = formatName;
               settings = options;
               AVFormatContext* made = nullptr;
               if (const int result = avformat_alloc_output_context2(&made, nullptr, formatName, nullptr);
                   result < 0)
                   return result;
               format.reset(made);
               if (format->oformat->flags & AVFMT_NOFILE) return AVERROR(EINVAL);
               auto* buffer = static_cast<uint8_t*>(av_malloc(streamBuffer));
               if (!buffer) return AVERROR(ENOMEM);
               stream.reset(avio_alloc_context(buffer, streamBuffer, 1, this, nullptr, &Muxer::acceptBytes,
                                               options & seekable ? &Muxer::seek : nullptr));
               if (!stream) {
                   av_free(buffer);
                   return AVERROR(ENOMEM);
               }
               format->pb = stream.get();
               format->opaque = this;
               format->io_open = &Muxer::openStream;
               format->io_close = &Muxer::closeStream;
               format->avoid_negative_ts = 0;
               format->flush_packets = 1;
               format->max_delay = transportLead; // only MPEG-TS knows of it
               format->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_BITEXACT;
               format->flags &= ~AVFMT_FLAG_AUTO_BSF;
               return 1;
           }) == 1;
}

Muxer::Track* Muxer::addTrack(Codec codec, AVRational tick) {
    if (!format || begun || tracks.size() >= tracksLimit) return nullptr;
    if (avformat_query_codec(format->oformat, codecIds[codec], FF_COMPLIANCE_NORMAL) == 0) return nullptr;
    AVStream* made = avformat_new_stream(format.get(), nullptr);
    if (!made) return nullptr;
    made->time_base = tick;
    made->codecpar->codec_id = codecIds[codec];
    made->codecpar->codec_type = codec == h264 ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
    Track& track = tracks.emplace_back();
    track.stream = made;
    track.codec = codec;
    track.tick = tick;
    return &track;
}

int Muxer::addPictures(const PictureFormat& picture, int ticksPerSecond, std::span<const uint8_t> sets) {
    constexpr int largest = 16384, lastNumber = 22; // of H.264's tables of colours
    const auto wrong = [](int value, int most) { return value < 0 || value > most; };
    if (wrong(picture.width - 1, largest) || wrong(picture.height - 1, largest) ||
        wrong(ticksPerSecond - 1, 999'999) || wrong(picture.pixelWidth, 65535) ||
        wrong(picture.pixelHeight, 65535) || picture.rotation % 90 || wrong(picture.rotation, 270) ||
        wrong(picture.range, 2) || wrong(picture.primaries, lastNumber) ||
        wrong(picture.transfer, lastNumber) || wrong(picture.matrix, lastNumber) || sets.size() > 65535 ||
        !startsWithCode(sets.data(), static_cast<int>(sets.size())))
        return WRONG_CALL;
    return guarded([&] {
        Track* track = addTrack(h264, {1, ticksPerSecond});
        if (!track) return WRONG_CALL;
        AVCodecParameters& codec = *track->stream->codecpar;
        codec.width = picture.width;
        codec.height = picture.height;
        codec.format = AV_PIX_FMT_YUV420P;
        if (picture.pixelWidth && picture.pixelHeight)
            track->stream->sample_aspect_ratio =
                codec.sample_aspect_ratio = {picture.pixelWidth, picture.pixelHeight};
        codec.color_range = static_cast<AVColorRange>(picture.range);
        const auto orUnspecified = [](int number) { return number ? number : 2; };
        codec.color_primaries = static_cast<AVColorPrimaries>(orUnspecified(picture.primaries));
        codec.color_trc = static_cast<AVColorTransferCharacteristic>(orUnspecified(picture.transfer));
        codec.color_space = static_cast<AVColorSpace>(orUnspecified(picture.matrix));
        if (picture.rotation) {
            // The corner that is turned away is moved back, which players of old rely on.
            constexpr int one = 1 << 16, full = 1 << 30;
            const int width = picture.width * one, height = picture.height * one;
            const int32_t turned[][9] = {{0, one, 0, -one, 0, 0, height, 0, full},
                                         {-one, 0, 0, 0, -one, 0, width, height, full},
                                         {0, -one, 0, one, 0, 0, 0, width, full}};
            const auto& matrix = turned[picture.rotation / 90 - 1];
            uint8_t* data = av_stream_new_side_data(track->stream, AV_PKT_DATA_DISPLAYMATRIX, sizeof matrix);
            if (!data) return AVERROR(ENOMEM);
            std::memcpy(data, matrix, sizeof matrix);
        }
        if (const int result = setConfiguration(codec, sets); result < 0) return result;
        if (const int result = annotate(*track, picture); result < 0) return result;
        return static_cast<int>(tracks.size()) - 1;
    });
}

// Players that look at the pictures alone are told as well: the parameter sets say it too.
int Muxer::annotate(Track& track, const PictureFormat& picture) {
    const bool shaped =
        picture.pixelWidth && picture.pixelHeight && picture.pixelWidth != picture.pixelHeight;
    if (!shaped && !picture.range && !picture.primaries && !picture.transfer && !picture.matrix) return 0;
    const AVBitStreamFilter* found = av_bsf_get_by_name("h264_metadata");
    AVBSFContext* made = nullptr;
    if (!found || av_bsf_alloc(found, &made) < 0) return AVERROR(ENOMEM);
    FilterOwner filter(made);
    if (const int result = avcodec_parameters_copy(filter->par_in, track.stream->codecpar); result < 0)
        return result;
    filter->time_base_in = track.tick;
    if (shaped)
        av_opt_set_q(filter->priv_data, "sample_aspect_ratio", {picture.pixelWidth, picture.pixelHeight}, 0);
    if (picture.range) av_opt_set_int(filter->priv_data, "video_full_range_flag", picture.range - 1, 0);
    const struct {
        const char* option;
        int number;
    } colours[] = {{"colour_primaries", picture.primaries},
                   {"transfer_characteristics", picture.transfer},
                   {"matrix_coefficients", picture.matrix}};
    for (const auto& [option, number] : colours)
        if (number) av_opt_set_int(filter->priv_data, option, number, 0);
    // Parameter sets that FFmpeg does not understand stay as they are.
    if (av_bsf_init(filter.get()) < 0) return 0;
    const AVCodecParameters& told = *filter->par_out;
    if (told.extradata_size > 0) {
        av_freep(&track.stream->codecpar->extradata);
        const auto size = static_cast<size_t>(told.extradata_size);
        if (const int result = setConfiguration(*track.stream->codecpar, {told.extradata, size}); result < 0)
            return result;
    }
    track.annotation = std::move(filter);
    return 0;
}

int Muxer::addSound(Codec codec, int sampleRate, int channels, int priming,
                    std::span<const uint8_t> configuration) {
    constexpr int longestConfiguration = 64; // bytes
    if (codec <= h264 || codec >= codecs || sampleRate < 1 || sampleRate > 192'000 || channels < 1 ||
        channels > (codec == aac || codec == pcm ? 8 : 2) || priming < 0 || priming > 48'000 ||
        (codec == aac ? configuration.size() < 2 || configuration.size() > longestConfiguration
                      : !configuration.empty()) ||
        (codec == opus && sampleRate != 48'000))
        return WRONG_CALL;
    return guarded([&] {
        Track* track = addTrack(codec, {1, sampleRate});
        if (!track) return WRONG_CALL;
        AVCodecParameters& sound = *track->stream->codecpar;
        sound.sample_rate = sampleRate;
        sound.channels = channels;
        sound.channel_layout = static_cast<uint64_t>(av_get_default_channel_layout(channels));
        sound.initial_padding = priming;
        uint8_t head[19] = {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1};
        switch (codec) {
        case aac:
            sound.profile = (configuration[0] >> 3) - 1;
            sound.frame_size = 1024;
            break;
        case mp3:
            sound.frame_size = sampleRate < 32'000 ? 576 : 1152;
            break;
        case opus:
            sound.frame_size = 960;
            sound.seek_preroll = 3840;
            head[9] = static_cast<uint8_t>(channels);
            // In fragments the times say all: units of nothing but priming are left out there.
            AV_WL16(head + 10, settings & fragmented ? uint16_t{0} : static_cast<uint16_t>(priming));
            AV_WL32(head + 12, static_cast<uint32_t>(sampleRate));
            configuration = head;
            break;
        default:
            sound.bits_per_coded_sample = 16;
            sound.block_align = 2 * channels;
        }
        if (!configuration.empty())
            if (const int result = setConfiguration(sound, configuration); result < 0) return result;
        return static_cast<int>(tracks.size()) - 1;
    });
}

int Muxer::label(int track, const char* language, const char* title) {
    if (!format || begun || track < 0 || track >= static_cast<int>(tracks.size())) return WRONG_CALL;
    AVDictionary*& labels = tracks[static_cast<size_t>(track)].stream->metadata;
    int result = language ? av_dict_set(&labels, "language", language, 0) : 0;
    for (const char* key : {"title", "handler_name"})
        if (result >= 0 && title) result = av_dict_set(&labels, key, title, 0);
    return std::min(result, 0);
}

int Muxer::begin(int firstFragment) {
    if (!format || begun || tracks.empty() || firstFragment < 1) return WRONG_CALL;
    begun = true;
    return answer(guarded([&] {
        AVDictionary* options = nullptr;
        int result = chooseOptions(firstFragment, &options);
        if (result >= 0) result = avformat_write_header(format.get(), &options);
        av_dict_free(&options);
        if (result >= 0) avio_flush(stream.get());
        return std::min(result, 0);
    }));
}

int Muxer::chooseOptions(int firstFragment, AVDictionary** options) const {
    if (name == "flv" && !(settings & seekable))
        return av_dict_set(options, "flvflags", "no_duration_filesize", 0);
    if (!isOneOf(name, {"mp4", "mov"})) return 0;
    const char* flags = settings & fragmented  ? "cmaf+frag_custom+frag_discont+skip_trailer"
                        : settings & fastStart ? "faststart"
                                               : nullptr;
    int timescale = -1; // of all tracks of pictures, 0 when they differ: MP4 then takes multiples of them
    bool coloured = false;
    for (const Track& track : tracks) {
        if (track.codec != h264) continue;
        timescale = timescale == -1 || timescale == track.tick.den ? track.tick.den : 0;
        const AVCodecParameters& picture = *track.stream->codecpar;
        coloured |= picture.color_range || picture.color_primaries != AVCOL_PRI_UNSPECIFIED ||
                    picture.color_trc != AVCOL_TRC_UNSPECIFIED ||
                    picture.color_space != AVCOL_SPC_UNSPECIFIED;
    }
    int result = flags ? av_dict_set(options, "movflags", flags, 0) : 0;
    if (result >= 0 && coloured) result = av_dict_set(options, "movflags", "+write_colr", AV_DICT_APPEND);
    if (result >= 0 && settings & fragmented)
        result = av_dict_set_int(options, "fragment_index", firstFragment, 0);
    if (result >= 0 && timescale > 0)
        result = av_dict_set_int(options, "video_track_timescale", timescale, 0);
    return result;
}

bool Muxer::keepsDurations() const { return isOneOf(name, {"mp4", "mov", "matroska", "ogg"}); }

int Muxer::refusal(const Track& track, const MuxedUnit& unit) const {
    const AVPacket& packet = *unit.packet;
    const bool adts = track.codec == aac && isOneOf(name, {"adts", "mpegts"});
    const int least = isOneOf(name, {"mpegts"}) ? 2 : 1;
    const int most = adts ? adtsLimit : name == "flv" ? flvLimit : unitLimit;
    if (packet.size < least || packet.size > most ||
        (track.codec == h264 && !startsWithCode(packet.data, packet.size)) ||
        // FFmpeg takes it for ADTS, of which none is left here.
        (track.codec == aac && packet.size > 1 && (AV_RB16(packet.data) & 0xFFF0) == 0xFFF0) ||
        (track.codec == pcm && packet.size % track.stream->codecpar->block_align))
        return WRONG_UNIT;

    const int64_t limit = longestSeconds * track.tick.den;
    const auto beyond = [&](int64_t time) { return time < -limit || time > limit; };
    if (beyond(unit.presentationTime) || beyond(unit.decodingTime) || unit.duration < 0 ||
        beyond(unit.duration))
        return OUT_OF_RANGE;
    if (unit.presentationTime < unit.decodingTime) return SHOWN_BEFORE_DECODED;
    const auto inContainer = [&](int64_t time) {
        return av_rescale_q(time, track.tick, track.stream->time_base);
    };
    if (inContainer(unit.duration) > longestDistance ||
        inContainer(unit.presentationTime - unit.decodingTime) > longestDistance)
        return OUT_OF_RANGE;
    if (track.begun) {
        if (unit.decodingTime <= track.lastTime) return NOT_RISING;
        const int64_t distance = inContainer(unit.decodingTime) - inContainer(track.lastTime);
        if (distance <= 0 && !(format->oformat->flags & AVFMT_TS_NONSTRICT)) return NOT_RISING;
        if (distance > longestDistance && !(settings & fragmented && track.queue.empty()))
            return OUT_OF_RANGE;
    }

    // The earliest time. Sound before the beginning is an encoder's priming, which only some containers can
    // tell of.
    const int64_t priming = track.stream->codecpar->initial_padding;
    if (track.codec == h264) {
        const int64_t shift = track.begun ? track.shift : shiftOf(unit);
        const int64_t earliest = settings & fragmented ? unit.decodingTime + shift
                                 : name == "matroska"  ? unit.presentationTime
                                 : name == "flv"       ? unit.decodingTime
                                 : name == "mpegts"
                                     ? unit.decodingTime + transportLead * track.tick.den / AV_TIME_BASE
                                     : 0;
        if (earliest < 0) return TOO_EARLY;
    } else if (name == "ogg" || (track.codec == opus && isOneOf(name, {"matroska", "mpegts"}))) {
        if (unit.presentationTime < -priming) return LEFT_OUT;
    } else if (settings & fragmented || isOneOf(name, {"matroska", "mpegts", "flv"})) {
        if (unit.presentationTime < 0) return LEFT_OUT;
    }
    // FFmpeg writes no FLV tag that is decoded before the first one.
    if (name == "flv" && anyWritten && inContainer(unit.decodingTime) < firstWritten) return LEFT_OUT;
    if (settings & fragmented && fragmentSize + packet.size > fragmentLimit) return FRAGMENT_FULL;
    return 0;
}

int Muxer::write(int number, MuxedUnit unit) {
    if (!format || !begun || finished || number < 0 || number >= static_cast<int>(tracks.size()) ||
        !unit.packet)
        return WRONG_CALL;
    if (failure) return failure;
    Track& track = tracks[static_cast<size_t>(number)];
    AVPacket& packet = *unit.packet;
    if (track.codec == aac) {
        const int header = adtsHeaderOf(packet.data, packet.size);
        packet.data += header;
        packet.size -= header;
    }
    if (const int refused = refusal(track, unit)) return refused;
    if (!track.begun) track.shift = shiftOf(unit);
    track.begun = true;
    track.lastTime = unit.decodingTime;
    if (name == "flv" && !anyWritten)
        firstWritten = av_rescale_q(unit.decodingTime, track.tick, track.stream->time_base);
    anyWritten = true;
    if (settings & fragmented) fragmentSize += packet.size;
    return answer(guarded([&] {
        if (!(settings & fragmented)) return pass(track, std::move(unit));
        track.queue.push_back(std::move(unit));
        return 0;
    }));
}

// Hands a unit on, unless it waits for the next one, which tells how long it lasts.
int Muxer::pass(Track& track, MuxedUnit unit) {
    if (const int result = releaseHeld(track, unit.decodingTime); result < 0) return result;
    if (!keepsDurations() || unit.duration) return mux(track, std::move(unit));
    track.held = std::move(unit);
    return 0;
}

// Of the decoding times of a track in fragments, which have no sign: as far as its first unit waits to be
// shown.
int64_t Muxer::shiftOf(const MuxedUnit& first) {
    return first.decodingTime < 0 ? first.presentationTime - first.decodingTime : 0;
}

// FFmpeg would shift every track that reorders, and its own demuxer then reads all times too late. It learns
// the distance from the first packet, which may be an empty one.
int Muxer::keepDecodingTimes(const Track& track) {
    const PacketOwner packet(av_packet_alloc());
    if (!packet) return AVERROR(ENOMEM);
    packet->stream_index = track.stream->index;
    packet->pts = packet->dts = 0;
    return av_write_frame(format.get(), packet.get());
}

// Writes the unit that waits, which lasts until `end` where that is known.
int Muxer::releaseHeld(Track& track, int64_t end) {
    if (!track.held.packet) return 0;
    MuxedUnit unit = std::move(track.held);
    const AVCodecParameters& codec = *track.stream->codecpar;
    const AVPacket& packet = *unit.packet;
    if (end != unknown && end > unit.decodingTime)
        unit.duration = end - unit.decodingTime;
    else if (track.codec == opus)
        unit.duration = opusDuration(packet.data, packet.size);
    else if (track.codec == pcm)
        unit.duration = packet.size / codec.block_align;
    // A longer one than AAC and MP3 have was a hole.
    else if (track.lastDuration && (track.codec == h264 || track.lastDuration <= 2 * codec.frame_size))
        unit.duration = track.lastDuration;
    else
        unit.duration = track.codec == h264 ? track.tick.den / usualRate : codec.frame_size;
    unit.duration = std::max<int64_t>(unit.duration, 1);
    return mux(track, std::move(unit));
}

int Muxer::mux(Track& track, MuxedUnit unit) {
    track.lastDuration = unit.duration;
    if (track.annotation && hasParameterSets(unit.packet->data, unit.packet->size)) {
        PacketOwner copy(av_packet_clone(unit.packet.get()));
        if (!copy) return AVERROR(ENOMEM);
        // What it cannot read it drops.
        if (av_bsf_send_packet(track.annotation.get(), copy.get()) < 0 ||
            av_bsf_receive_packet(track.annotation.get(), copy.get()) < 0 ||
            !startsWithCode(copy->data, copy->size))
            av_bsf_flush(track.annotation.get());
        else
            unit.packet = std::move(copy);
    }
    return put(track, unit);
}

int Muxer::put(Track& track, MuxedUnit& unit) {
    if (settings & fragmented && !track.shift && !std::exchange(track.written, true))
        if (const int result = keepDecodingTimes(track); result < 0) return result;
    TrackRun& run = track.run;
    const int64_t decodeTime = unit.decodingTime + (settings & fragmented ? track.shift : 0);
    if (run.units++ == 0) {
        run.decodeTime = decodeTime;
        run.presentationTime = unit.presentationTime;
        run.key = unit.key;
    }
    run.presentationTime = std::min(run.presentationTime, unit.presentationTime);
    run.duration = decodeTime + unit.duration - run.decodeTime;

    // Matroska times count the priming of Opus, and players subtract it, as the header tells them.
    const int64_t offset =
        name == "matroska" && track.codec == opus ? track.stream->codecpar->initial_padding : 0;
    const auto inContainer = [&](int64_t time) {
        return av_rescale_q(time, track.tick, track.stream->time_base);
    };
    AVPacket& packet = *unit.packet;
    packet.stream_index = track.stream->index;
    packet.pts = inContainer(unit.presentationTime + offset);
    packet.dts = inContainer(unit.decodingTime + offset);
    packet.duration = inContainer(unit.decodingTime + unit.duration) - inContainer(unit.decodingTime);
    packet.flags = unit.key ? AV_PKT_FLAG_KEY : 0;
    return av_write_frame(format.get(), &packet);
}

int Muxer::cut(int64_t nextTime) {
    if (!format || !begun || finished) return WRONG_CALL;
    if (failure) return failure;
    if (nextTime != unknown && (!tracks[0].queue.empty() || tracks[0].held.packet)) {
        const Track& track = tracks[0];
        if (nextTime <= track.lastTime) return NOT_RISING;
        const int64_t limit = longestSeconds * track.tick.den;
        if (nextTime > limit ||
            av_rescale_q(nextTime - track.lastTime, track.tick, track.stream->time_base) > longestDistance)
            return OUT_OF_RANGE;
    }
    return answer(guarded([&] {
        bool any = false;
        for (Track& track : tracks) {
            for (MuxedUnit& unit : track.queue)
                if (const int result = pass(track, std::move(unit)); result < 0) return result;
            track.queue.clear();
            const int64_t end = &track == tracks.data() ? nextTime : unknown;
            if (const int result = releaseHeld(track, end); result < 0) return result;
            any |= track.run.units > 0;
            track.finished = track.run;
            track.run = {};
        }
        if (!any) return 0;
        constexpr int64_t header = 1024;
        bytes.reserve(static_cast<size_t>(pending() + fragmentSize + header));
        fragmentSize = 0;
        if (const int result = av_write_frame(format.get(), nullptr); result < 0) return result;
        // Each fragment tells its own time, whatever the durations before it add up to.
        if (settings & fragmented)
            if (const int result = av_opt_set(format->priv_data, "movflags", "+frag_discont", 0); result < 0)
                return result;
        avio_flush(stream.get());
        return 0;
    }));
}

int Muxer::finish() {
    if (!format || !begun || finished) return WRONG_CALL;
    if (failure) return failure;
    return answer(guarded([&] {
        for (Track& track : tracks)
            if (const int result = releaseHeld(track, unknown); result < 0) return result;
        finished = true;
        const int result = av_write_trailer(format.get());
        // With the index in front it is what was written last, and all the rest had to make room for it.
        const auto move =
            std::find_if(pieces.begin(), pieces.end(), [](const Piece& piece) { return piece.moves; });
        if (move != pieces.end() && move + 1 != pieces.end()) move->place = move[1].place;
        for (auto piece = move; piece != pieces.end(); ++piece)
            if (!piece->moves) move->size = std::max(move->size, piece->place + piece->size - move->place);
        return std::min(result, 0);
    }));
}

const TrackRun* Muxer::run(int track) const {
    if (track < 0 || track >= static_cast<int>(tracks.size())) return nullptr;
    return &tracks[static_cast<size_t>(track)].finished;
}

// The result of a call: what there is to take, or the first error.
int Muxer::answer(int result) {
    if (result >= 0 && stream->error < 0) result = stream->error;
    if (result >= 0) return static_cast<int>(std::min<int64_t>(pending(), INT_MAX));
    failure = result;
    return result;
}

void Muxer::take() {
    takenBytes += pieces[taken].moves ? 0 : static_cast<size_t>(pieces[taken].size);
    if (++taken < pieces.size()) return;
    pieces.clear();
    bytes.clear();
    taken = takenBytes = 0;
    if (bytes.capacity() > keptCapacity) bytes.shrink_to_fit();
}

int Muxer::acceptBytes(void* opaque, uint8_t* data, int size) {
    Muxer& muxer = *static_cast<Muxer*>(opaque);
    return guarded([&] {
        std::vector<Piece>& pieces = muxer.pieces;
        if (pieces.size() == muxer.taken || pieces.back().moves ||
            pieces.back().place + pieces.back().size != muxer.place)
            pieces.push_back({false, muxer.place, 0});
        muxer.bytes.insert(muxer.bytes.end(), data, data + size);
        pieces.back().size += size;
        muxer.place += size;
        muxer.length = std::max(muxer.length, muxer.place);
        return size;
    });
}

int64_t Muxer::seek(void* opaque, int64_t place, int whence) {
    Muxer& muxer = *static_cast<Muxer*>(opaque);
    if (whence & AVSEEK_SIZE) return muxer.length;
    if (whence != SEEK_SET || place < 0) return AVERROR(EINVAL);
    return muxer.place = place;
}

// FFmpeg opens its output once more for one thing, to move what it has written and make room in front. It
// lies with whoever took it, who is told to; FFmpeg reads an empty stream.
int Muxer::openStream(AVFormatContext* opened, AVIOContext** made, const char*, int flags, AVDictionary**) {
    Muxer& muxer = *static_cast<Muxer*>(opened->opaque);
    if (!(muxer.settings & fastStart) || !muxer.finished || flags != AVIO_FLAG_READ) return AVERROR(EACCES);
    return guarded([&] {
        muxer.pieces.push_back({true, 0, 0});
        auto* buffer = static_cast<uint8_t*>(av_malloc(streamBuffer));
        if (!buffer) return AVERROR(ENOMEM);
        *made = avio_alloc_context(
            buffer, streamBuffer, 0, nullptr, [](void*, uint8_t*, int) { return AVERROR_EOF; }, nullptr,
            nullptr);
        if (!*made) av_free(buffer);
        return *made ? 0 : AVERROR(ENOMEM);
    });
}

void Muxer::closeStream(AVFormatContext*, AVIOContext* made) { StreamOwner{made}; }

void Muxer::close() {
    tracks = std::vector<Track>();
    format.reset();
    stream.reset();
    pieces = std::vector<Piece>();
    bytes = std::vector<uint8_t>();
    name = std::string();
    taken = takenBytes = 0;
}

namespace {

std::span<const uint8_t> spanOf(const ArrayCopy& copy) {
    return {copy.as<uint8_t>(), static_cast<size_t>(copy.size)};
}

void putBigEndian64(uint8_t* to, int64_t number) { AV_WB64(to, static_cast<uint64_t>(number)); }

} // namespace

JNIEXPORT jlong JNICALL Java_com_kelvane_media_transform_codec_Muxer_open(JNIEnv* env, jclass, jstring format,
                                                                          jint options) {
    if (!format) return 0;
    JavaCall java(env);
    const JavaString name(java, format);
    Muxer* muxer = name.get() ? muxer_ctx.NewCodec() : nullptr;
    if (!muxer) return 0;
    if (muxer->open(name.get(), options)) return muxer->handle;
    muxer_ctx.RemoveCodec(muxer->handle);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_addPictures(
    JNIEnv* env, jclass, jint width, jint height, jint ticksPerSecond, jbyteArray parameterSets,
    jbyteArray shape, jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    if (!muxer || !parameterSets || !shape) return WRONG_CALL;
    JavaCall java(env);
    const ArrayCopy sets = java.copyIn(parameterSets), shown = java.copyIn(shape);
    if (!sets || !shown || shown.size < 9) return WRONG_CALL;
    const auto* numbers = shown.as<uint8_t>();
    PictureFormat format;
    format.width = width;
    format.height = height;
    format.pixelWidth = AV_RB16(numbers);
    format.pixelHeight = AV_RB16(numbers + 2);
    format.rotation = 90 * numbers[4];
    format.range = numbers[5];
    format.primaries = numbers[6];
    format.transfer = numbers[7];
    format.matrix = numbers[8];
    return muxer->addPictures(format, ticksPerSecond, spanOf(sets));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_addSound(JNIEnv* env, jclass, jint codec,
                                                                             jint sampleRate, jint channels,
                                                                             jint priming,
                                                                             jbyteArray configuration,
                                                                             jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    if (!muxer || !configuration || codec < 0 || codec >= Muxer::codecs) return WRONG_CALL;
    JavaCall java(env);
    const ArrayCopy copy = java.copyIn(configuration);
    if (!copy) return WRONG_CALL;
    return muxer->addSound(static_cast<Muxer::Codec>(codec), sampleRate, channels, priming, spanOf(copy));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_label(JNIEnv* env, jclass, jint track,
                                                                          jstring language, jstring name,
                                                                          jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    if (!muxer) return WRONG_CALL;
    JavaCall java(env);
    int result = 0;
    if (language) result = muxer->label(track, JavaString(java, language).get(), nullptr);
    if (name && result >= 0) result = muxer->label(track, nullptr, JavaString(java, name).get());
    return result;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_begin(JNIEnv*, jclass, jint firstFragment,
                                                                          jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    return muxer ? muxer->begin(firstFragment) : WRONG_CALL;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_write(JNIEnv* env, jclass, jint track,
                                                                          jbyteArray unit, jint from,
                                                                          jint size, jlong presentationTime,
                                                                          jlong decodingTime, jlong duration,
                                                                          jboolean key, jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    if (!muxer || !unit) return WRONG_CALL;
    JavaCall java(env);
    if (size < 1 || size > unitLimit) return WRONG_UNIT;
    MuxedUnit copy;
    copy.packet.reset(av_packet_alloc());
    if (!copy.packet || av_new_packet(copy.packet.get(), size) < 0) return AVERROR(ENOMEM);
    if (!java.copyIn(unit, copy.packet->data, from, size)) return WRONG_CALL;
    copy.presentationTime = presentationTime;
    copy.decodingTime = decodingTime;
    copy.duration = duration;
    copy.key = key;
    return muxer->write(track, std::move(copy));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_cut(JNIEnv*, jclass, jlong next,
                                                                        jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    return muxer ? muxer->cut(next) : WRONG_CALL;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_run(JNIEnv* env, jclass, jint track,
                                                                        jbyteArray info, jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    const TrackRun* run = muxer ? muxer->run(track) : nullptr;
    if (!run || !info) return WRONG_CALL;
    JavaCall java(env);
    uint8_t told[29];
    putBigEndian64(told, run->decodeTime);
    putBigEndian64(told + 8, run->presentationTime);
    putBigEndian64(told + 16, run->duration);
    putBigEndian(told + 24, 4, static_cast<uint32_t>(run->units));
    told[28] = run->key;
    java.copyOut(info, told, sizeof told);
    return run->units;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_finish(JNIEnv*, jclass, jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    return muxer ? muxer->finish() : WRONG_CALL;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_next(JNIEnv* env, jclass, jbyteArray info,
                                                                         jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    const Muxer::Piece* piece = muxer ? muxer->next() : nullptr;
    if (!piece || !info) return com_kelvane_media_transform_codec_Muxer_NOTHING;
    JavaCall java(env);
    uint8_t told[17];
    told[0] = piece->moves ? com_kelvane_media_transform_codec_Muxer_MOVE
                           : com_kelvane_media_transform_codec_Muxer_BYTES;
    putBigEndian64(told + 1, piece->place);
    putBigEndian64(told + 9, piece->size);
    java.copyOut(info, told, sizeof told);
    return told[0];
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_take(JNIEnv* env, jclass,
                                                                         jbyteArray output, jint at,
                                                                         jlong handle) {
    Muxer* muxer = muxer_ctx.GetCoder(handle);
    const Muxer::Piece* piece = muxer ? muxer->next() : nullptr;
    if (!piece) return 0;
    JavaCall java(env);
    const auto size = static_cast<jsize>(piece->moves ? 0 : piece->size);
    if (size > 0) {
        if (!output || at < 0 || java.env->GetArrayLength(output) - at < size) return -size;
        java.copyWithin(output, muxer->nextBytes(), size, at);
    }
    muxer->take();
    return size;
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_transform_codec_Muxer_describe(JNIEnv* env, jclass, jint result,
                                                                             jbyteArray text) {
    if (!text) return 0;
    JavaCall java(env);
    char words[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(result, words, sizeof words);
    const auto size = std::min(static_cast<jsize>(std::strlen(words)), java.env->GetArrayLength(text));
    java.copyWithin(text, words, size);
    return size;
}

JNIEXPORT void JNICALL Java_com_kelvane_media_transform_codec_Muxer_close(JNIEnv*, jclass, jlong handle) {
    muxer_ctx.RemoveCodec(handle);
}
