#pragma once
// What the logger's Windows tests share: unique texts to find their own records, the
// ring read back through RingReader, the logger's registry values set for one test, the
// critical file, and the logwriter program as "another process".

#include "ChildProcess.h"
#include "RingReader.h"
#include "TarnBase/win/Handle.h"
#include "TarnLog/CriticalFile.h"
#include "TarnLog/Log.h"
#include "TarnLog/win/Logger.h"

#include <windows.h>
#include <shlobj.h>

#include <doctest.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace LoggerTest {

inline std::string Nonce()
{
    static std::atomic<unsigned> counter{0};
    return std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(::GetTickCount()) + "-" +
           std::to_string(counter++);
}

// The logger creates the ring on its first record; the readers need it to exist.
inline void EnsureRing()
{
    TarnLog::Log("LoggerTest", 2, "LoggerTest: ring wanted by pid %lu.", ::GetCurrentProcessId());
}

inline std::string Message(const TarnLog::LogRecord& record)
{
    return TarnLog::ReadField(record.message, sizeof record.message);
}

inline std::string ClassName(const TarnLog::LogRecord& record)
{
    return TarnLog::ReadField(record.className, sizeof record.className);
}

// This process's records in the ring whose message contains `part`, oldest first.
inline std::vector<TarnLog::LogRecord> MyRecordsWith(const std::string& part, DWORD processId = ::GetCurrentProcessId())
{
    TarnTest::RingReader reader;
    std::vector<TarnLog::LogRecord> found;
    for (const auto& record : reader.RecordsOfProcess(processId))
        if (Message(record).find(part) != std::string::npos)
            found.push_back(record);
    return found;
}

inline uint32_t WriteCounter()
{
    TarnTest::RingReader reader;
    return reader.WriteCounter();
}

inline uint32_t Le32(const uint8_t* at)
{
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
           static_cast<uint32_t>(at[3]) << 24;
}

// Sets one of the logger's values under HKCU for the life of the object, then puts the
// old state back. Every change is followed by a generation bump so that every logging
// process reloads, as a viewer would make them.
class LoggerValue {
public:
    LoggerValue(const char* name, DWORD value) : m_name(name)
    {
        ::RegCreateKeyExA(HKEY_CURRENT_USER, TarnLog::kLoggerKeyPath, 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr,
                          m_key.Put(), nullptr);
        REQUIRE(m_key);
        DWORD old = 0;
        DWORD type = 0;
        DWORD size = sizeof old;
        if (::RegQueryValueExA(m_key.Get(), name, nullptr, &type, reinterpret_cast<BYTE*>(&old), &size) ==
                ERROR_SUCCESS &&
            type == REG_DWORD && size == sizeof old)
            m_old = old;
        Set(value);
    }
    ~LoggerValue()
    {
        if (m_old)
            ::RegSetValueExA(m_key.Get(), m_name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&*m_old), sizeof(DWORD));
        else
            ::RegDeleteValueA(m_key.Get(), m_name);
        TarnTest::RingHeaderEditor().BumpGeneration();
    }
    LoggerValue(const LoggerValue&) = delete;
    LoggerValue& operator=(const LoggerValue&) = delete;

    void Set(DWORD value)
    {
        REQUIRE(::RegSetValueExA(m_key.Get(), m_name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                                 sizeof value) == ERROR_SUCCESS);
        REQUIRE(TarnTest::RingHeaderEditor().BumpGeneration());
    }

private:
    const char* m_name;
    TarnBase::UniqueRegKey m_key;
    std::optional<DWORD> m_old;
};

inline std::string CriticalFilePath()
{
    char folder[MAX_PATH] = {};
    REQUIRE(SUCCEEDED(::SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, folder)));
    return std::string(folder) + "\\Ostrum\\critical.txt";
}

inline std::vector<std::string> CriticalRecords()
{
    std::ifstream in(CriticalFilePath(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return TarnLog::ReadCriticalRecords(bytes).records;
}

inline bool CriticalFileHas(const std::string& part)
{
    for (const auto& record : CriticalRecords())
        if (record.find(part) != std::string::npos)
            return true;
    return false;
}

// logwriter.exe, run to its end with the given arguments.
inline TarnTest::ChildResult RunLogWriter(const std::vector<std::wstring>& args)
{
    std::vector<std::wstring> command{TarnTest::BuildPath("testing/logwriter/logwriter.exe")};
    command.insert(command.end(), args.begin(), args.end());
    return TarnTest::RunChild(command, 30000);
}

} // namespace LoggerTest
