// The name rule depends on the system's version. Wine can pretend to be an older system for
// one program (AppDefaults), which checks the pre-NT-5 branch for real, not just by input.
#include "ChildProcess.h"

#include <cstring>

#include "TarnBase/win/Handle.h"

#include <doctest.h>

namespace {

class WineVersionOverride {
public:
    WineVersionOverride(const char* exe, const char* version) : m_key(std::string("Software\\Wine\\AppDefaults\\") + exe)
    {
        TarnBase::UniqueRegKey key;
        ::RegCreateKeyExA(HKEY_CURRENT_USER, m_key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, key.Put(), nullptr);
        ::RegSetValueExA(key.Get(), "Version", 0, REG_SZ, reinterpret_cast<const BYTE*>(version),
                         static_cast<DWORD>(std::strlen(version) + 1));
    }
    ~WineVersionOverride() { ::RegDeleteKeyA(HKEY_CURRENT_USER, m_key.c_str()); }
    WineVersionOverride(const WineVersionOverride&) = delete;
    WineVersionOverride& operator=(const WineVersionOverride&) = delete;

private:
    std::string m_key;
};

std::string Probe(const char* name)
{
    return TarnTest::RunChild({TarnTest::BuildPath("testing/osprobe.exe"), TarnTest::Widen(name)}).out;
}

} // namespace

TEST_CASE("kernel object names follow the system the program runs on")
{
    CHECK(Probe("Table") == "platform=2 major=6 name=Global\\Table\n");
    {
        WineVersionOverride nt4("osprobe.exe", "nt40");
        CHECK(Probe("Table") == "platform=2 major=4 name=Table\n");
        CHECK(Probe("Global\\Table") == "platform=2 major=4 name=Table\n");
    }
    {
        WineVersionOverride xp("osprobe.exe", "winxp64");
        CHECK(Probe("Table") == "platform=2 major=5 name=Global\\Table\n");
    }
}
