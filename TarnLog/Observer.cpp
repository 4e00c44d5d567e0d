#include "TarnLog/Log.h"

#include <atomic>

namespace TarnLog {
namespace {

struct ObserverSlot {
    Observer observer;
    void* context;
};

std::atomic<ObserverSlot*> g_slot{nullptr};
ObserverSlot g_storage[2];
std::atomic<int> g_next{0};

} // namespace

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

} // namespace TarnLog
