// The download's deadline watch. Wine does not unblock a WinINet call whose session another
// thread closes (Windows does), so the watch is shown here on a real session, not through a
// server that sends its headers a byte at a time.
#include "TarnSM/win/DownloadWatch.h"

#include <doctest.h>

#include <wininet.h>

TEST_CASE("the download watch closes the session at its deadline, and never after Stop (a blocked call's unblocking is the platform's part)")
{
    for (const bool late : {true, false}) {
        CAPTURE(late);
        TarnBase::UniqueInternetHandle session(::InternetOpenA("TarnSM", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
        REQUIRE(session);
        TarnSMX::DownloadWatch watch(session, 100);
        if (late)
            ::Sleep(600);
        CHECK(watch.Stop() == late);
        ::Sleep(late ? 0 : 300);  // a stopped watch never fires
        CHECK(static_cast<bool>(session) == !late);
    }
}
