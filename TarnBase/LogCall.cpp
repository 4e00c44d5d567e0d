#include "TarnBase/LogCall.h"

#include <atomic>
#include <cstdio>

namespace TarnBase {
namespace {

std::atomic<LogSink> g_sink{nullptr};

struct ObserverSlot {
    Observer observer;
    void* context;
};

std::atomic<ObserverSlot*> g_slot{nullptr};
ObserverSlot g_storage[2];
std::atomic<int> g_next{0};

} // namespace

void SetLogSink(LogSink sink) noexcept
{
    g_sink.store(sink);
}

void Log(const char* className, unsigned char level, const char* format, ...) noexcept
{
    va_list args;
    va_start(args, format);
    if (LogSink sink = g_sink.load()) {
        sink(className, level, format, args);
    } else if (format != nullptr) {
        char message[2048];
        if (std::vsnprintf(message, sizeof message, format, args) < 0)
            std::snprintf(message, sizeof message, "%s", format);
        NotifyObserver(className, level, message);
    }
    va_end(args);
}

void SetObserver(Observer observer, void* context) noexcept
{
    if (observer == nullptr) {
        g_slot.store(nullptr);
        return;
    }
    // Two alternating slots so a record in flight never sees a half-written pair.
    ObserverSlot* slot = &g_storage[g_next.fetch_add(1) & 1];
    slot->observer = observer;
    slot->context = context;
    g_slot.store(slot);
}

void NotifyObserver(const char* className, unsigned char level, const char* message) noexcept
{
    if (ObserverSlot* slot = g_slot.load())
        slot->observer(slot->context, className, level, message);
}

} // namespace TarnBase
