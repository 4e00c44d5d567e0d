#pragma once
// Collects the records this process hands to the logger while the capture lives, and checks
// a scenario's records against one table of expected records.

#include "TarnLog/Log.h"

#include <doctest.h>

#include <initializer_list>
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

// One expected record. An empty class or a level of -1 matches any; a text ending in "..."
// matches every message that starts with the text before the dots.
struct ExpectedRecord {
    std::string className;
    int level;
    std::string text;

    bool Matches(const CapturedRecord& record) const
    {
        const bool prefix = text.size() >= 3 && text.compare(text.size() - 3, 3, "...") == 0;
        const bool textMatches = prefix ? record.message.compare(0, text.size() - 3, text, 0, text.size() - 3) == 0
                                        : record.message == text;
        return textMatches && (className.empty() || record.className == className) &&
               (level < 0 || static_cast<int>(record.level) == level);
    }
};

// The records captured so far are `expected` in order: exactly those when `only`, else with
// other records between and around them. A mismatch fails the check and shows every record.
inline bool Expect(const LogCapture& capture, std::initializer_list<ExpectedRecord> expected, bool only = true)
{
    const auto records = capture.Records();
    auto it = expected.begin();
    bool same = !only || records.size() == expected.size();
    for (size_t i = 0; same && i < records.size() && it != expected.end(); ++i)
        if (it->Matches(records[i]))
            ++it;
        else
            same = !only;
    same = same && it == expected.end();
    std::string text = "expected:\n";
    for (const auto& e : expected)
        text += "  {" + e.className + ", " + std::to_string(e.level) + ", " + e.text + "}\n";
    text += only ? "captured, exactly:\n" : "captured, in this order with others:\n";
    for (const auto& r : records)
        text += "  {" + r.className + ", " + std::to_string(r.level) + ", " + r.message + "}\n";
    INFO(text);
    CHECK(same);
    return same;
}

inline bool ExpectInOrder(const LogCapture& capture, std::initializer_list<ExpectedRecord> expected)
{
    return Expect(capture, expected, false);
}

} // namespace TarnTest
