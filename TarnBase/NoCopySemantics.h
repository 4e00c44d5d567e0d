#pragma once

namespace TarnBase {

// Mix-in for classes that own kernel objects: a copy would close the handle twice.
class NoCopySemantics {
protected:
    NoCopySemantics() = default;
    ~NoCopySemantics() = default;

public:
    NoCopySemantics(const NoCopySemantics&) = delete;
    NoCopySemantics& operator=(const NoCopySemantics&) = delete;
};

} // namespace TarnBase
