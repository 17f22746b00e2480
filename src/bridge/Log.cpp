#include "bridge/Log.h"

#include "bridge/JavaCall.h"
#include "com_kelvane_media_NativeLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint64_t room = 512; // lines

// The lines that are kept lie in a ring. A slot's turn tells what it is ready for: in round r, to be written
// at 2r and to be read at 2r + 1. Threads may still write while the process exits, so that nothing here is
// ever destroyed.
struct Slot {
    std::atomic<uint64_t> turn;
    size_t size;
    Log::Level level;
    char line[Log::longestLine];
};

constinit Slot slots[room];
constinit std::atomic<uint64_t> written = 0, lost = 0;
constinit uint64_t taken = 0;
constinit std::atomic<Log::Destination> chosen = Log::Destination::standard;

Slot& slotAt(uint64_t place) { return slots[place % room]; }
constexpr uint64_t writingTurn(uint64_t place) { return place / room * 2; }

// Null when all slots wait to be read. `place` is that of the slot.
Slot* claimSlot(uint64_t& place) {
    place = written.load(std::memory_order_relaxed);
    for (;;) {
        Slot& slot = slotAt(place);
        const uint64_t turn = slot.turn.load(std::memory_order_acquire);
        if (turn == writingTurn(place)) {
            if (written.compare_exchange_weak(place, place + 1, std::memory_order_relaxed)) return &slot;
        } else if (turn < writingTurn(place)) {
            return nullptr;
        } else {
            place = written.load(std::memory_order_relaxed);
        }
    }
}

void keep(const Log::Line& line, const char* format, va_list arguments) {
    uint64_t place = 0;
    Slot* const slot = claimSlot(place);
    if (!slot) {
        lost.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    const auto head = static_cast<size_t>(std::snprintf(slot->line, sizeof slot->line, "%s\n", line.engine));
    const int text = std::vsnprintf(slot->line + head, sizeof slot->line - head, format, arguments);
    slot->size = std::min(head + static_cast<size_t>(std::max(text, 0)), sizeof slot->line - 1);
    slot->level = line.level;
    slot->turn.store(writingTurn(place) + 1, std::memory_order_release);
}

constexpr Log ffmpeg("FFmpeg");

void keepFFmpegLine(void* context, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_INFO || Log::destination() != Log::Destination::kept) return;
    char text[Log::longestLine];
    int withPrefix = 1;
    av_log_format_line(context, level, format, arguments, text, sizeof text, &withPrefix);
    (level <= AV_LOG_ERROR     ? ffmpeg.error
     : level <= AV_LOG_WARNING ? ffmpeg.complaint
                               : ffmpeg.info)("%s", text);
}

// FFmpeg is the process's, whereas this library goes with its class loader, unless somebody has it open.
// Whoever is on the way into a callback cannot be waited for.
bool staysLoaded() {
    static void* const opened = [] {
        Dl_info self;
        return dladdr(slots, &self) ? dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD) : nullptr;
    }();
    return opened;
}

} // namespace

void Log::Line::operator()(const char* format, ...) const {
    const Destination to = destination();
    if (to == Destination::discarded) return;
    va_list arguments;
    va_start(arguments, format);
    if (to == Destination::kept)
        keep(*this, format, arguments);
    else
        std::vfprintf(onStandardError ? stderr : stdout, format, arguments);
    va_end(arguments);
}

Log::Destination Log::destination() { return chosen.load(std::memory_order_relaxed); }

void Log::choose(Destination destination) {
    static const int levelBefore = av_log_get_level();
    static bool keepsFFmpeg = false; // another copy of this library may do so, too
    chosen.store(destination, std::memory_order_relaxed);
    const bool keeps = destination == Destination::kept && staysLoaded();
    if (keeps != keepsFFmpeg) av_log_set_callback(keeps ? keepFFmpegLine : av_log_default_callback);
    keepsFFmpeg = keeps;
    av_log_set_level(destination == Destination::standard ? levelBefore : AV_LOG_QUIET);
}

size_t Log::take(char (&line)[longestLine], Level& level) {
    Slot& slot = slotAt(taken);
    if (slot.turn.load(std::memory_order_acquire) != writingTurn(taken) + 1) return 0;
    const size_t size = slot.size;
    std::memcpy(line, slot.line, size);
    level = slot.level;
    slot.turn.store(writingTurn(taken++) + 2, std::memory_order_release);
    return size;
}

uint64_t Log::dropped() { return lost.load(std::memory_order_relaxed); }

JNIEXPORT void JNICALL Java_com_kelvane_media_NativeLog_choose(JNIEnv*, jclass, jint destination) {
    if (destination < 0 || destination > static_cast<jint>(Log::Destination::kept)) return;
    Log::choose(static_cast<Log::Destination>(destination));
}

JNIEXPORT jint JNICALL Java_com_kelvane_media_NativeLog_take(JNIEnv* env, jclass, jbyteArray bytes) {
    char line[Log::longestLine];
    Log::Level level{};
    if (!bytes || env->GetArrayLength(bytes) < static_cast<jsize>(sizeof line)) return 0;
    const auto size = static_cast<jsize>(Log::take(line, level));
    if (size > 0) JavaCall(env).copyWithin(bytes, line, size);
    return size << 8 | static_cast<jint>(level);
}

JNIEXPORT jlong JNICALL Java_com_kelvane_media_NativeLog_droppedLines(JNIEnv*, jclass) {
    return static_cast<jlong>(Log::dropped());
}
