#pragma once
// Plays the debugger-output reader (what DebugView does): OutputDebugStringA hands each
// string to the owner of the machine-wide DBWIN objects. A thread keeps the buffer moving
// while the reader lives, so no writer ever waits on it; the lines of this process are kept.

#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace TarnTest {

class DebuggerOutput {
public:
    // Waits up to `waitMs` for another reader to leave; Ready() says whether this one owns
    // the output (a test must fail, not pass silently, when it does not).
    explicit DebuggerOutput(DWORD waitMs = 10000)
    {
        const ULONGLONG until = ::GetTickCount64() + waitMs;
        for (;;) {
            m_bufferReady.Reset(::CreateEventA(nullptr, FALSE, FALSE, "DBWIN_BUFFER_READY"));
            if (m_bufferReady && ::GetLastError() != ERROR_ALREADY_EXISTS)
                break;
            m_bufferReady.Reset();
            if (::GetTickCount64() >= until)
                return;
            ::Sleep(100);
        }
        m_dataReady.Reset(::CreateEventA(nullptr, FALSE, FALSE, "DBWIN_DATA_READY"));
        m_mapping.Reset(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, "DBWIN_BUFFER"));
        if (m_mapping)
            m_view.Reset(::MapViewOfFile(m_mapping.Get(), FILE_MAP_READ, 0, 0, 4096));
        if (!m_dataReady || !m_view)
            return;
        m_ready = true;
        ::SetEvent(m_bufferReady.Get());
        m_pump = std::thread([this] { Pump(); });
    }
    ~DebuggerOutput()
    {
        m_stop = true;
        if (m_pump.joinable())
            m_pump.join();
    }
    DebuggerOutput(const DebuggerOutput&) = delete;
    DebuggerOutput& operator=(const DebuggerOutput&) = delete;

    bool Ready() const { return m_ready; }

    // This process's lines so far, oldest first.
    std::vector<std::string> Lines() const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_lines;
    }

    // The first line of this process that contains `part`, waiting up to `waitMs` for it;
    // empty when none came.
    std::string WaitFor(const std::string& part, DWORD waitMs = 5000) const
    {
        const ULONGLONG until = ::GetTickCount64() + waitMs;
        do {
            for (const auto& line : Lines())
                if (line.find(part) != std::string::npos)
                    return line;
            ::Sleep(20);
        } while (::GetTickCount64() < until);
        return std::string();
    }

private:
    void Pump()
    {
        while (!m_stop) {
            if (::WaitForSingleObject(m_dataReady.Get(), 50) != WAIT_OBJECT_0)
                continue;
            const char* bytes = static_cast<const char*>(m_view.Get());
            DWORD pid = 0;
            std::memcpy(&pid, bytes, sizeof pid);
            if (pid == ::GetCurrentProcessId()) {
                std::lock_guard<std::mutex> lock(m_lock);
                m_lines.emplace_back(bytes + sizeof pid, strnlen(bytes + sizeof pid, 4096 - sizeof pid));
            }
            ::SetEvent(m_bufferReady.Get());
        }
    }

    TarnBase::UniqueHandle m_bufferReady;
    TarnBase::UniqueHandle m_dataReady;
    TarnBase::UniqueHandle m_mapping;
    TarnBase::UniqueMappedView m_view;
    bool m_ready = false;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_lock;
    std::vector<std::string> m_lines;
    std::thread m_pump;
};

} // namespace TarnTest
