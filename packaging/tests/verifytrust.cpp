// verifytrust FILE...: WinVerifyTrust's answer for each file, as the platform checks a
// download or an installer. The exit code is the number of files that do not verify.
#include <windows.h>

#include <softpub.h>
#include <wintrust.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string narrow = argv[i];
        const std::wstring path(narrow.begin(), narrow.end());
        WINTRUST_FILE_INFO file = {sizeof file, path.c_str(), nullptr, nullptr};
        WINTRUST_DATA data = {};
        data.cbStruct = sizeof data;
        data.dwUIChoice = WTD_UI_NONE;
        data.fdwRevocationChecks = WTD_REVOKE_NONE;
        data.dwUnionChoice = WTD_CHOICE_FILE;
        data.pFile = &file;
        data.dwStateAction = WTD_STATEACTION_VERIFY;
        GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
        const LONG result = ::WinVerifyTrust(nullptr, &action, &data);
        data.dwStateAction = WTD_STATEACTION_CLOSE;  // frees the state the verification kept
        ::WinVerifyTrust(nullptr, &action, &data);
        std::printf("0x%08lX %s\n", static_cast<unsigned long>(result), argv[i]);
        failures += result != 0;
    }
    return failures;
}
