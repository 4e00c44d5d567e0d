#include "TarnBase/Exceptions.h"
#include "TarnBase/KernelObjectName.h"
#include "LogCapture.h"

#include <doctest.h>

#include <functional>

using namespace TarnBase;

namespace {

template <typename E>
std::function<void()> Thrower() { return [] { throw E(); }; }

} // namespace

TEST_CASE("every exception is a BaseException carrying its fixed identifier, which reaches scripts as is")
{
    const struct { std::function<void()> raise; const wchar_t* id; } table[] = {
        {Thrower<InvalidObjectException>(), L"INVALID_OBJECT_ERROR"},
        {Thrower<KernelObjectNameInvalidException>(), L"TARNBASEKERNELOBJECT_INVALIDNAME_ERROR"},
        {Thrower<InvalidParameterException>(), L"INVALID_ARG_ERROR"},
        {Thrower<InvalidOperationException>(), L"INVALID_OPERATION_ERROR"},
        {[] { throw Win32ErrorException("Event", 7, 1450); }, L"WIN32_ERROR"},
        {[] { throw Win32ErrorException("Mutex", 42, 5); }, L"SECURITY_ERROR"},
        {Thrower<UnknownException>(), L"UNKNOWN_EXCEPTION_ERROR"},
        {Thrower<StringConversionException>(), L"STRING_CONVERSION_ERROR"},
        {Thrower<OutOfMemoryException>(), L"OUT_OF_MEMORY_ERROR"},
        {Thrower<UnsupportedOSException>(), L"UNSUPPORTED_OS_ERROR"},
        {Thrower<NullPointerException>(), L"NULL_POINTER_ERROR"},
        {[] { throw GenericException(L"INVALID_FILE_ATTRIBUTES"); }, L"INVALID_FILE_ATTRIBUTES"},
        {Thrower<TarnMT::ThreadAbortException>(), L"THREAD_ABORT_EXCEPTION"},
        {Thrower<TarnMT::ThreadDeadlockException>(), L"THREAD_DEADLOCK_EXCEPTION"},
        {Thrower<TarnMT::AutoLockTimeoutException>(), L"AUTOLOCK_TIMEOUT_EXCEPTION_ERROR"},
        {Thrower<TarnUtils::CreateTempDirException>(), L"TARNUTILSDIR_CREATE_TEMP_DIR_ERROR"},
        {Thrower<TarnUtils::CreateDirException>(), L"TARNUTILSDIR_CREATE_DIR_ERROR"},
        {Thrower<TarnUtils::GetPathFromIDListException>(), L"TARNUTILSDIR_GET_PATH_FROM_ID_LIST_ERROR"},
        {Thrower<TarnUtils::GetOSVersionException>(), L"TARNUTILSPLATFORM_GETVERSION_ERROR"},
    };
    for (const auto& row : table) {
        std::wstring id = L"(not caught as BaseException)";
        try {
            row.raise();
        } catch (const BaseException& e) {
            id = e.GetErrorId();
        }
        CHECK(id == row.id);
    }

    const Win32ErrorException other("Event", 7, 1450);
    CHECK(other.GetExtendedData() == "File - Event, Line - 7, GetLastError = 1450");
    CHECK(other.GetLastErrorCode() == 1450);
}

TEST_CASE("kernel object names: namespaces on NT 5 and later only, bad names refused with a throw record")
{
    const OsVersion xp{2, 5}, nt4{2, 4}, win9x{1, 4};
    const struct { std::string name; bool global; OsVersion os; std::string result; } table[] = {
        {"TarnLogger::Logger::Mutex::3.0", true, xp, "Global\\TarnLogger::Logger::Mutex::3.0"},
        {"Table", false, xp, "Local\\Table"},
        {"global\\Table", false, xp, "global\\Table"},
        {"Global\\a\\b", true, xp, "Global\\a\\b"},  // a prefixed name is kept whole
        {std::string(260, 'x'), true, xp, "Global\\" + std::string(260, 'x')},
        {"Table", true, nt4, "Table"},
        {"Global\\Table", true, nt4, "Table"},
        {"local\\Table", false, win9x, "Table"},
        {"Global\\a\\b", true, nt4, "throws"},
        {"", true, xp, "throws"},
        {"a\\b", true, xp, "throws"},
        {std::string(261, 'x'), true, xp, "throws"},
    };
    for (const auto& row : table) {
        INFO(row.name.substr(0, 40));
        TarnTest::LogCapture capture;
        if (row.result == "throws") {
            CHECK_THROWS_AS(MakeKernelObjectName(row.name, row.global, row.os), KernelObjectNameInvalidException);
            CHECK(capture.HasSubstring("Throwing TarnBase::KernelObjectNameInvalidException exception type."));
        } else {
            CHECK(MakeKernelObjectName(row.name, row.global, row.os) == row.result);
        }
    }
}
