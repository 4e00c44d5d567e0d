#pragma once

#include <windows.h>

#include <vector>

namespace TarnMT {

// Owns a self-relative copy of a security descriptor and the SECURITY_ATTRIBUTES that
// point at it, so a kernel object can be created later with the caller's descriptor even
// after the caller's own copy is gone.
class SecurityAttributes {
public:
    SecurityAttributes() = default;
    SecurityAttributes(const SECURITY_ATTRIBUTES* source);  // copies; null means "none"
    SecurityAttributes(const SecurityAttributes& other);
    SecurityAttributes& operator=(const SecurityAttributes& other);

    // A descriptor with a NULL DACL: every local process may open the object. Shared
    // objects need it: their other users run as other users and at low integrity.
    static SecurityAttributes Everyone();

    // Null when no attributes were given.
    SECURITY_ATTRIBUTES* Get();

private:
    void Point();

    bool m_present = false;
    BOOL m_inherit = FALSE;
    std::vector<unsigned char> m_descriptor;  // self-relative
    SECURITY_ATTRIBUTES m_attributes{};
};

} // namespace TarnMT
