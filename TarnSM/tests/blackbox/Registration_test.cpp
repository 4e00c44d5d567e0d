// Registration writes and removes every key of the class. This changes the prefix's class
// registration, so it runs alone (RUN_SERIAL) and leaves the control registered.
#include "PageHost.h"
#include "ChildProcess.h"

#include <doctest.h>

namespace {

std::wstring ReadValue(const std::wstring& key, const wchar_t* name = nullptr)
{
    wchar_t data[1024] = {};
    DWORD size = sizeof data;
    if (::RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), name, RRF_RT_REG_SZ, nullptr, data, &size) != ERROR_SUCCESS)
        return L"<missing>";
    return data;
}

bool KeyExists(const std::wstring& key)
{
    TarnBase::UniqueRegKey handle;
    return ::RegOpenKeyExW(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, handle.Put()) == ERROR_SUCCESS;
}

DWORD RegSvr32(bool unregister)
{
    std::vector<std::wstring> args = {L"regsvr32.exe", L"/s"};
    if (unregister)
        args.push_back(L"/u");
    args.push_back(TarnTest::BuildPath("TarnSM/TarnSMX.dll"));
    return TarnTest::RunChild(args).exitCode;
}

const wchar_t kClassKey[] = L"CLSID\\{673D89B5-D69D-4BC1-94F9-E80FFC6D55E9}";
const wchar_t kTypeLibKey[] = L"TypeLib\\{940A9063-F717-4AA7-949A-2E886F0D6F53}";
const wchar_t kInterfaceKey[] = L"Interface\\{94CC1F71-0223-4A2A-8890-5A59BA98BB2A}";

void CheckRegistered()
{
    const std::wstring cls = kClassKey;
    CHECK(ReadValue(L"TarnSM.TarnSM.1") == L"TarnSM Class");
    CHECK(ReadValue(L"TarnSM.TarnSM.1\\CLSID") == L"{673D89B5-D69D-4BC1-94F9-E80FFC6D55E9}");
    CHECK(ReadValue(L"TarnSM.TarnSM") == L"TarnSM Class");
    CHECK(ReadValue(L"TarnSM.TarnSM\\CLSID") == L"{673D89B5-D69D-4BC1-94F9-E80FFC6D55E9}");
    CHECK(ReadValue(L"TarnSM.TarnSM\\CurVer") == L"TarnSM.TarnSM.1");
    CHECK(ReadValue(cls) == L"TarnSM Class");
    CHECK(ReadValue(cls, L"AppID") == L"{B96603AC-39C0-4E74-A121-889B2C8B41C5}");
    CHECK(ReadValue(cls + L"\\ProgID") == L"TarnSM.TarnSM.1");
    CHECK(ReadValue(cls + L"\\VersionIndependentProgID") == L"TarnSM.TarnSM");
    CHECK(KeyExists(cls + L"\\Programmable"));
    const std::wstring server = ReadValue(cls + L"\\InprocServer32");
    CHECK((server.size() > 11 && server.substr(server.size() - 11) == L"TarnSMX.dll"));
    CHECK(ReadValue(cls + L"\\InprocServer32", L"ThreadingModel") == L"Apartment");
    CHECK(ReadValue(cls + L"\\TypeLib") == L"{940A9063-F717-4AA7-949A-2E886F0D6F53}");
    CHECK(ReadValue(std::wstring(kTypeLibKey) + L"\\1.0") == L"TarnSM 1.0 Type Library");
    CHECK(KeyExists(kInterfaceKey));
    // No component categories: safety is declared through IObjectSafety only.
    CHECK_FALSE(KeyExists(cls + L"\\Implemented Categories"));
}

} // namespace

TEST_CASE("regsvr32 writes every key, /u removes every key, and registering twice is harmless")
{
    REQUIRE(RegSvr32(false) == 0);
    CheckRegistered();
    REQUIRE(RegSvr32(true) == 0);
    for (const wchar_t* key : {kClassKey, L"TarnSM.TarnSM.1", L"TarnSM.TarnSM", kTypeLibKey,
                               L"AppID\\{B96603AC-39C0-4E74-A121-889B2C8B41C5}"})
        CHECK_FALSE(KeyExists(key));

    REQUIRE(RegSvr32(false) == 0);
    REQUIRE(RegSvr32(false) == 0);
    CheckRegistered();
}
