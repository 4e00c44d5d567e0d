// The signer's subject text comes from a certificate inside a downloaded file.
#include "TarnUtils/X500Name.h"
#include "TarnBase/Exceptions.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string subject(reinterpret_cast<const char*>(data), size);
    subject = subject.c_str();  // certificate text arrives NUL-terminated
    for (const char* type : {"2.5.4.3", "2.5.4.10", "CN"}) {
        try {
            const size_t needed = TarnUtils::ExtractX500Name(subject.c_str(), type, nullptr, 0);
            if (needed == 0)
                continue;
            std::vector<char> exact(needed);
            TarnUtils::ExtractX500Name(subject.c_str(), type, exact.data(), exact.size());
            if (std::strlen(exact.data()) + 1 != needed)
                __builtin_trap();
            char small[4];
            TarnUtils::ExtractX500Name(subject.c_str(), type, small, sizeof small);
            if (std::memchr(small, '\0', sizeof small) == nullptr)
                __builtin_trap();  // a short buffer must still come back terminated
        } catch (const TarnBase::BaseException&) {
        }
    }
    return 0;
}
