#pragma once

#include <windows.h>
#include <accctrl.h>

namespace TarnLog {

// Lets low-integrity processes (a browser in protected mode) open a shared object. Only
// where the system has integrity levels; any failure leaves the object as it was.
// Label by handle only: a name could lead through a link to someone else's object.
void ApplyLowIntegrityLabel(HANDLE object, SE_OBJECT_TYPE type = SE_KERNEL_OBJECT);

} // namespace TarnLog
