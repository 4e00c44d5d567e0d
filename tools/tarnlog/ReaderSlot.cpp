#include "ReaderSlot.h"

#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <cstring>

namespace TarnLogTool {
namespace {

const char kFollowerPrefix[] = "TarnLogView.";
constexpr size_t kSlotOffset = offsetof(TarnLog::RingHeader, slots);

void BumpGeneration(uint8_t* header)
{
    uint32_t generation = 0;
    std::memcpy(&generation, header, sizeof generation);
    ++generation;
    std::memcpy(header, &generation, sizeof generation);
}

TarnLog::NotificationSlot ReadSlot(const uint8_t* header, int index)
{
    TarnLog::NotificationSlot slot;
    std::memcpy(&slot, header + kSlotOffset + index * sizeof slot, sizeof slot);
    return slot;
}

void WriteSlot(uint8_t* header, int index, const TarnLog::NotificationSlot& slot)
{
    std::memcpy(header + kSlotOffset + index * sizeof slot, &slot, sizeof slot);
}

} // namespace

std::string FollowerEventName(uint32_t processId)
{
    return kFollowerPrefix + std::to_string(processId);
}

bool FollowerProcessId(const std::string& eventName, uint32_t& processId)
{
    const size_t prefix = sizeof kFollowerPrefix - 1;
    if (eventName.compare(0, prefix, kFollowerPrefix) != 0 || eventName.size() == prefix || eventName.size() > prefix + 10)
        return false;
    uint64_t value = 0;
    for (size_t i = prefix; i < eventName.size(); ++i) {
        if (eventName[i] < '0' || eventName[i] > '9')
            return false;
        value = value * 10 + static_cast<uint64_t>(eventName[i] - '0');
    }
    if (value > 0xFFFFFFFFu)
        return false;
    processId = static_cast<uint32_t>(value);
    return true;
}

int ChooseSlot(const TarnLog::RingHeader& header, const std::function<bool(uint32_t)>& isGone)
{
    for (uint32_t i = 0; i < TarnLog::kNotificationSlots; ++i)
        if (header.slots[i].inUse == 0)
            return static_cast<int>(i);
    // A follower killed before it could free its slot would hold it for good otherwise.
    for (uint32_t i = 0; i < TarnLog::kNotificationSlots; ++i) {
        uint32_t owner = 0;
        if (FollowerProcessId(TarnLog::SlotEventName(header.slots[i]), owner) && isGone(owner))
            return static_cast<int>(i);
    }
    return -1;
}

int ClaimSlot(uint8_t* header, const std::string& eventName, const std::function<bool(uint32_t)>& isGone)
{
    TarnLog::RingHeader copy;
    std::memcpy(&copy, header, sizeof copy);
    const int index = ChooseSlot(copy, isGone);
    if (index < 0)
        return -1;
    TarnLog::NotificationSlot slot{};
    std::memcpy(slot.eventName, eventName.data(), eventName.size() < 31 ? eventName.size() : 31);
    slot.inUse = 1;
    WriteSlot(header, index, slot);
    BumpGeneration(header);
    return index;
}

void ReleaseSlot(uint8_t* header, int slot, const std::string& eventName)
{
    if (slot < 0 || slot >= static_cast<int>(TarnLog::kNotificationSlots))
        return;
    if (TarnLog::SlotEventName(ReadSlot(header, slot)) != eventName)
        return;
    WriteSlot(header, slot, TarnLog::NotificationSlot{});
    BumpGeneration(header);
}

bool IsProcessGone(uint32_t processId)
{
    if (processId == ::GetCurrentProcessId())
        return true;  // a slot left by an earlier follower that had this id
    TarnBase::UniqueHandle process(::OpenProcess(SYNCHRONIZE, FALSE, processId));
    if (!process)
        return ::GetLastError() == ERROR_INVALID_PARAMETER;
    return ::WaitForSingleObject(process.Get(), 0) == WAIT_OBJECT_0;
}

} // namespace TarnLogTool
