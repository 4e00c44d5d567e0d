#pragma once
// A follower's place in the ring header: one of the seven notification slots holds the
// name of the event every writer sets after each record. Writers pick up a change of the
// slots when the generation moves, so every claim and release bumps it.

#include "TarnLog/RingLayout.h"

#include <cstdint>
#include <functional>
#include <string>

namespace TarnLogTool {

// "TarnLogView.<pid>": unique per follower, short enough for a slot, no backslash.
std::string FollowerEventName(uint32_t processId);

// The pid of a slot name made by FollowerEventName, or false for any other name.
bool FollowerProcessId(const std::string& eventName, uint32_t& processId);

// A free slot, else one left behind by a follower that has gone (`isGone` decides),
// else -1. Slots of other kinds of readers are never taken.
int ChooseSlot(const TarnLog::RingHeader& header, const std::function<bool(uint32_t)>& isGone);

// Under the ring mutex, on a writable header of at least kRingHeaderSize bytes.
int ClaimSlot(uint8_t* header, const std::string& eventName, const std::function<bool(uint32_t)>& isGone);
// Frees the slot only while it still holds `eventName`: another reader may have taken it.
void ReleaseSlot(uint8_t* header, int slot, const std::string& eventName);

// True when no process of that id runs any more.
bool IsProcessGone(uint32_t processId);

} // namespace TarnLogTool
