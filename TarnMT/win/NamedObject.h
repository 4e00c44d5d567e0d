#pragma once

#include "TarnBase/NoCopySemantics.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/CriticalSection.h"
#include "TarnMT/win/SecurityAttributes.h"

#include <string>

namespace TarnMT {

// What Event and Mutex share: a kernel object, named or not, configured after construction
// and created on first use, so that a name and security set late still apply.
class NamedObject : public TarnBase::NoCopySemantics {
public:
    const std::string& GetName() const { return m_name; }
    // True when creation opened an object that another party had already created.
    bool AlreadyExisted() const { return m_alreadyExisted; }

protected:
    // `kind` names the object in its records: "Event" gives "Event object ..." and "CreateEvent".
    NamedObject(const char* className, const char* kind) : m_class(className), m_kind(kind) {}
    ~NamedObject() = default;

    // Refused (and logged) once the object exists: its handle already carries the old name.
    void ConfigName(const std::string& name, const SECURITY_ATTRIBUTES* securityAttributes);
    // `create` gets the attributes (none before NT) and the name (null when unnamed).
    bool EnsureCreated(HANDLE (*create)(SECURITY_ATTRIBUTES* attributes, const char* name));
    HANDLE Handle() const { return m_handle.Get(); }

private:
    const char* m_class;
    const char* m_kind;
    CriticalSection m_createLock;  // two threads' first use still makes one handle
    std::string m_name;
    bool m_alreadyExisted = false;
    SecurityAttributes m_securityAttributes;
    TarnBase::UniqueHandle m_handle;
};

} // namespace TarnMT
