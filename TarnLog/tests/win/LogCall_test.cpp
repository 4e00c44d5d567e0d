// The log call as callers rely on it: bad formats still leave a trace in the ring, and the
// caller's last-error code is the same after the call as before it.
#include "LoggerTestSupport.h"

using namespace LoggerTest;

TEST_CASE("a bad format string reaches the ring raw, after a TarnLogLib record")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const std::string format = "BadFormat: " + nonce + " %n stays raw %d";
    TarnLog::Log("BadFormat::Probe", 1, format.c_str(), 7);

    TarnTest::RingReader reader;
    const auto mine = reader.RecordsOfProcess(::GetCurrentProcessId());
    size_t at = mine.size();
    for (size_t i = 0; i < mine.size(); ++i)
        if (Message(mine[i]) == format)
            at = i;
    REQUIRE(at < mine.size());
    CHECK(ClassName(mine[at]) == "BadFormat::Probe");
    CHECK(mine[at].level == 1);
    REQUIRE(at > 0);
    CHECK(ClassName(mine[at - 1]) == "TarnLogLib");
    CHECK(mine[at - 1].level == 2);
    CHECK(Message(mine[at - 1]) ==
          "Invalid parameter handler invoked:  The original log text contained an invalid sequence.");
}

TEST_CASE("wide arguments are converted through the ANSI code page")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const std::wstring wide = L"wide-" + std::wstring(nonce.begin(), nonce.end());
    TarnLog::Log("Wide::Probe", 2, "Wide: %S and %ls.", wide.c_str(), L"more");
    CHECK(MyRecordsWith("Wide: wide-" + nonce + " and more.").size() == 1);
}

TEST_CASE("the caller's last-error code survives every kind of log call")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const std::string longText(3000, 'L');
    DWORD code = 0xBEEF0000;

    ::SetLastError(++code);
    TarnLog::Log("LastError::Probe", 2, "LastError: debug %s.", nonce.c_str());
    CHECK(::GetLastError() == code);

    ::SetLastError(++code);
    TarnLog::Log("LastError::Probe", 0, "LastError: error %s (critical file too).", nonce.c_str());
    CHECK(::GetLastError() == code);

    ::SetLastError(++code);
    TarnLog::Log("LastError::Probe", 2, "LastError: bad %n format");
    CHECK(::GetLastError() == code);

    ::SetLastError(++code);
    TarnLog::Log("LastError::Probe", 2, "LastError: wide %S.", L"text");
    CHECK(::GetLastError() == code);

    ::SetLastError(++code);
    TarnLog::Log("LastError::Probe", 2, "%s", longText.c_str());
    CHECK(::GetLastError() == code);

    ::SetLastError(++code);
    TarnLog::Log(nullptr, 2, nullptr);
    CHECK(::GetLastError() == code);

    ::SetLastError(ERROR_SUCCESS);
    TarnLog::Log("LastError::Probe", 0, "LastError: zero %s.", nonce.c_str());
    CHECK(::GetLastError() == static_cast<DWORD>(ERROR_SUCCESS));
}
