#pragma once

#include <windows.h>

namespace TarnLog {

// Lets low-integrity processes (a browser in protected mode) open a shared object. Only
// where the system has integrity levels; any failure leaves the object as it was.
void ApplyLowIntegrityLabel(HANDLE object);
void ApplyLowIntegrityLabelByName(const char* path);

} // namespace TarnLog
