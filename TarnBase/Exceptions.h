#pragma once
// The exception family every library throws. Identifiers are part of the external error
// vocabulary (scripts see them as error descriptions): spell them exactly as they are.

#include <cstdint>
#include <string>

namespace TarnBase {

class BaseException {
public:
    BaseException() = default;
    BaseException(const BaseException&) = default;
    BaseException& operator=(const BaseException&) = default;

    std::wstring GetErrorId() const { return m_errorId; }
    virtual std::string GetExtendedData() const { return m_extendedData; }

protected:
    explicit BaseException(const wchar_t* errorId) : m_errorId(errorId) {}
    void SetExtendedData(std::string data) { m_extendedData = std::move(data); }

    std::wstring m_errorId;
    std::string m_extendedData;
};

#define TARN_DECLARE_EXCEPTION(ns, Name, Id)                     \
    namespace ns {                                               \
    class Name : public ::TarnBase::BaseException {              \
    public:                                                      \
        Name() : ::TarnBase::BaseException(Id) {}                \
    };                                                           \
    }

} // namespace TarnBase

TARN_DECLARE_EXCEPTION(TarnBase, InvalidObjectException, L"INVALID_OBJECT_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, KernelObjectNameInvalidException, L"TARNBASEKERNELOBJECT_INVALIDNAME_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, InvalidParameterException, L"INVALID_ARG_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, InvalidOperationException, L"INVALID_OPERATION_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, UnknownException, L"UNKNOWN_EXCEPTION_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, StringConversionException, L"STRING_CONVERSION_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, OutOfMemoryException, L"OUT_OF_MEMORY_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, UnsupportedOSException, L"UNSUPPORTED_OS_ERROR")
TARN_DECLARE_EXCEPTION(TarnBase, NullPointerException, L"NULL_POINTER_ERROR")
TARN_DECLARE_EXCEPTION(TarnMT, ThreadAbortException, L"THREAD_ABORT_EXCEPTION")
TARN_DECLARE_EXCEPTION(TarnMT, ThreadDeadlockException, L"THREAD_DEADLOCK_EXCEPTION")
TARN_DECLARE_EXCEPTION(TarnMT, AutoLockTimeoutException, L"AUTOLOCK_TIMEOUT_EXCEPTION_ERROR")
TARN_DECLARE_EXCEPTION(TarnUtils, CreateTempDirException, L"TARNUTILSDIR_CREATE_TEMP_DIR_ERROR")
TARN_DECLARE_EXCEPTION(TarnUtils, CreateDirException, L"TARNUTILSDIR_CREATE_DIR_ERROR")
TARN_DECLARE_EXCEPTION(TarnUtils, GetPathFromIDListException, L"TARNUTILSDIR_GET_PATH_FROM_ID_LIST_ERROR")
TARN_DECLARE_EXCEPTION(TarnUtils, GetOSVersionException, L"TARNUTILSPLATFORM_GETVERSION_ERROR")

#undef TARN_DECLARE_EXCEPTION

namespace TarnBase {

// Carries its identifier from the thrower, e.g. L"INVALID_FILE_ATTRIBUTES".
class GenericException : public BaseException {
public:
    explicit GenericException(std::wstring errorId) { m_errorId = std::move(errorId); }
};

// A failed system call. Build it immediately after the call: the constructor without a
// code reads the thread's last error before anything can change it.
class Win32ErrorException : public BaseException {
public:
    Win32ErrorException(std::string sourceFile, uint32_t line);  // Windows build only
    Win32ErrorException(std::string sourceFile, uint32_t line, uint32_t lastError);

    uint32_t GetLastErrorCode() const { return m_lastError; }
    const std::string& GetSourceFile() const { return m_sourceFile; }
    uint32_t GetLine() const { return m_line; }

private:
    uint32_t m_lastError = 0;
    std::string m_sourceFile;
    uint32_t m_line = 0;
};

} // namespace TarnBase
