#include "TarnBase/Exceptions.h"
#include "TarnBase/KernelObjectName.h"
#include "LogCapture.h"

#include <doctest.h>

using namespace TarnBase;

TEST_CASE("exceptions carry their fixed identifiers and keep their class when copied")
{
    CHECK(BaseException().GetErrorId().empty());
    CHECK(BaseException().GetExtendedData().empty());
    CHECK(InvalidParameterException().GetErrorId() == L"INVALID_ARG_ERROR");
    CHECK(TarnMT::ThreadAbortException().GetErrorId() == L"THREAD_ABORT_EXCEPTION");
    CHECK(TarnMT::AutoLockTimeoutException().GetErrorId() == L"AUTOLOCK_TIMEOUT_EXCEPTION_ERROR");
    CHECK(KernelObjectNameInvalidException().GetErrorId() == L"TARNBASEKERNELOBJECT_INVALIDNAME_ERROR");
    CHECK(TarnUtils::GetOSVersionException().GetErrorId() == L"TARNUTILSPLATFORM_GETVERSION_ERROR");
    CHECK(GenericException(L"INVALID_FILE_ATTRIBUTES").GetErrorId() == L"INVALID_FILE_ATTRIBUTES");

    bool caughtAsOwnClass = false;
    try {
        try {
            throw InvalidParameterException();
        } catch (const InvalidParameterException& e) {
            InvalidParameterException copy(e);
            throw copy;
        }
    } catch (const InvalidParameterException& e) {
        caughtAsOwnClass = e.GetErrorId() == L"INVALID_ARG_ERROR";
    } catch (const BaseException&) {
    }
    CHECK(caughtAsOwnClass);

    bool caughtAsBase = false;
    try {
        throw TarnMT::ThreadDeadlockException();
    } catch (const BaseException& e) {
        caughtAsBase = e.GetErrorId() == L"THREAD_DEADLOCK_EXCEPTION";
    }
    CHECK(caughtAsBase);
}

TEST_CASE("a Win32 error names access denied as a security error and records where it happened")
{
    Win32ErrorException denied("Mutex", 42, 5);
    CHECK(denied.GetErrorId() == L"SECURITY_ERROR");
    CHECK(denied.GetExtendedData() == "File - Mutex, Line - 42, GetLastError = 5");
    Win32ErrorException other("Event", 7, 1450);
    CHECK(other.GetErrorId() == L"WIN32_ERROR");
    CHECK(other.GetExtendedData() == "File - Event, Line - 7, GetLastError = 1450");
    CHECK(other.GetLastErrorCode() == 1450);
}

TEST_CASE("kernel object names")
{
    const OsVersion xp{2, 5};
    const OsVersion nt4{2, 4};
    const OsVersion win9x{1, 4};

    SUBCASE("NT 5 and later put the namespace in front unless it is already there")
    {
        CHECK(MakeKernelObjectName("TarnLogger::Logger::Mutex::3.0", true, xp) == "Global\\TarnLogger::Logger::Mutex::3.0");
        CHECK(MakeKernelObjectName("Table", false, xp) == "Local\\Table");
        CHECK(MakeKernelObjectName("global\\Table", false, xp) == "global\\Table");
        CHECK(MakeKernelObjectName("LOCAL\\Table", true, xp) == "LOCAL\\Table");
    }
    SUBCASE("older systems know no namespaces: prefixes are removed, never added")
    {
        CHECK(MakeKernelObjectName("Table", true, nt4) == "Table");
        CHECK(MakeKernelObjectName("Global\\Table", true, nt4) == "Table");
        CHECK(MakeKernelObjectName("local\\Table", false, win9x) == "Table");
        CHECK_THROWS_AS(MakeKernelObjectName("Global\\a\\b", true, nt4), KernelObjectNameInvalidException);
    }
    SUBCASE("bad names are refused with a throw record")
    {
        TarnTest::LogCapture capture;
        CHECK_THROWS_AS(MakeKernelObjectName("", true, xp), KernelObjectNameInvalidException);
        CHECK(capture.HasSubstring("Throwing TarnBase::KernelObjectNameInvalidException exception type."));
        CHECK_THROWS_AS(MakeKernelObjectName("a\\b", true, xp), KernelObjectNameInvalidException);
        CHECK_THROWS_AS(MakeKernelObjectName(std::string(261, 'x'), true, xp), KernelObjectNameInvalidException);
        CHECK(MakeKernelObjectName(std::string(260, 'x'), true, xp).size() == 267);
        // A prefixed name within the limit is kept whole on NT 5, even with a backslash after it.
        CHECK(MakeKernelObjectName("Global\\a\\b", true, xp) == "Global\\a\\b");
    }
}
