#pragma once
// Collects the records this process hands to the logger while the capture lives.

#include "TarnLog/Log.h"

#include <mutex>
#include <string>
#include <vector>

namespace TarnTest {

struct CapturedRecord {
    std::string className;
    unsigned level;
    std::string message;
};

class LogCapture {
public:
    LogCapture()
    {
        // The logger comes up on its first record, and coming up may say things of its own
        // (its machine-wide mutex already existing, say). Bring it up before capturing, so a
        // test sees only the records of the code it runs.
        TarnLog::Log("TarnTest::LogCapture", 3, "Capturing this process's records.");
        TarnLog::SetObserver(&LogCapture::OnRecord, this);
    }
    ~LogCapture() { TarnLog::SetObserver(nullptr, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedRecord> Records() const
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_records;
    }

    // True when some record's message equals `message` (and its level, when given).
    bool Has(const std::string& message, int level = -1) const
    {
        for (const auto& r : Records())
            if (r.message == message && (level < 0 || static_cast<int>(r.level) == level))
                return true;
        return false;
    }

    bool HasSubstring(const std::string& part) const
    {
        for (const auto& r : Records())
            if (r.message.find(part) != std::string::npos)
                return true;
        return false;
    }

    size_t Count(const std::string& message) const
    {
        size_t n = 0;
        for (const auto& r : Records())
            n += r.message == message ? 1 : 0;
        return n;
    }

    void Clear()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_records.clear();
    }

private:
    static void OnRecord(void* context, const char* className, unsigned char level, const char* message)
    {
        auto* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->m_lock);
        self->m_records.push_back({className ? className : "", level, message ? message : ""});
    }

    mutable std::mutex m_lock;
    std::vector<CapturedRecord> m_records;
};

} // namespace TarnTest
