// The critical log file is shared by every process and may be left damaged by a crash.
#include "TarnLog/CriticalFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    (void)TarnLog::ReadCriticalRecords(bytes);
    return 0;
}
