#pragma once
// Named mappings are shared with every local process, and the one that creates a name
// first decides what lies behind it: pages reserved but never committed, or a file that
// can vanish under the view. Either makes the first read or write fault in the host.

#include <windows.h>

#include <cstddef>

namespace TarnBase {

// How many bytes from the start of `view` (a view mapped with read-write access) can be
// read and written without a fault: the run of committed read-write pages of that view.
// Zero for a view of a file-backed mapping, which only page-file mappings may replace.
size_t UsableViewBytes(const void* view);

} // namespace TarnBase
