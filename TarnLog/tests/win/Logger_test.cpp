// The real logger writing the real machine-wide ring, the critical file and the debugger
// output, with the registry settings, reader slots, header and lock other processes share.
#include "DebuggerOutput.h"
#include "Registry.h"
#include "RingReader.h"
#include "TarnLog/LogRecord.h"

#include <doctest.h>

#include <aclapi.h>

#include <algorithm>
#include <ctime>
#include <functional>

using namespace TarnTest;

namespace {

struct Value { const char* name; DWORD type; std::vector<uint8_t> bytes; };

Value Dword(const char* name, DWORD value) { const auto* at = reinterpret_cast<const uint8_t*>(&value); return {name, REG_DWORD, {at, at + 4}}; }

// Moves the generation, as a viewer does to make every process reload its settings.
struct GenerationBump { ~GenerationBump() { RingHeaderEditor().BumpGeneration(); } };

// Sets the logger's values under HKCU for the life of the object; each change (and the
// restore) is followed by a generation bump.
struct LoggerValues {
    explicit LoggerValues(const std::vector<Value>& values)
    {
        for (const auto& v : values)
            REQUIRE(key.SetRaw(v.name, v.type, v.bytes.data(), static_cast<DWORD>(v.bytes.size())));
        REQUIRE(RingHeaderEditor().BumpGeneration());
    }
    GenerationBump bumpAfterRestore;  // destroyed last
    ScopedRegistryKey key{HKEY_CURRENT_USER, TarnLog::kLoggerKeyPath};
};

// A field of `size` bytes holding `text`, its terminator and zeros after it.
bool FieldIs(const uint8_t* field, size_t size, const std::string& text)
{
    return text.size() < size && std::memcmp(field, text.data(), text.size()) == 0 &&
           std::all_of(field + text.size(), field + size, [](uint8_t b) { return b == 0; });
}

bool IsSet(HANDLE event, DWORD waitMs = 0) { return ::WaitForSingleObject(event, waitMs) == WAIT_OBJECT_0; }

} // namespace

TEST_CASE("logged records in the ring, byte by byte: fields at their offsets, cut to 511 and 63, the next entry")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
    TarnLog::Log("Layout::Probe", 1, "Layout: probe %s and %d.", nonce.c_str(), 42);
    const uint32_t after = static_cast<uint32_t>(std::time(nullptr));
    const std::string longClass = "Cut::" + std::string(120, 'c'), longMessage = "Cut: " + nonce + std::string(700, 'm');
    TarnLog::Log(longClass.c_str(), 2, "%s", longMessage.c_str());

    std::vector<uint8_t> bytes;
    REQUIRE(RingReader().CopyBytes(bytes));
    const uint32_t counter = Le32(&bytes[4]), count = Le32(&bytes[8]);
    REQUIRE((count > 0 && bytes.size() >= 292 + static_cast<size_t>(count) * 692));
    CHECK(Le32(&bytes[0]) != 0);  // the creator starts the generation at 1

    // Nothing else logs while this test runs: the two newest entries are ours.
    char path[MAX_PATH] = {};
    const std::string full(path, ::GetModuleFileNameA(nullptr, path, MAX_PATH));
    const uint8_t* entry = &bytes[292 + static_cast<size_t>((counter - 2) % count) * 692];
    CHECK((FieldIs(entry, 32, full.substr(full.find_last_of('\\') + 1)) && FieldIs(entry + 32, 128, "Layout::Probe")));
    CHECK((Le32(entry + 160) + 1 >= before && Le32(entry + 160) <= after + 1 && FieldIs(entry + 164, 8, "\x01")));
    CHECK((Le32(entry + 172) == ::GetCurrentThreadId() && Le32(entry + 176) == ::GetCurrentProcessId()));
    CHECK(FieldIs(entry + 180, 512, "Layout: probe " + nonce + " and 42."));
    const uint8_t* next = &bytes[292 + static_cast<size_t>((counter - 1) % count) * 692];
    CHECK((FieldIs(next + 32, 64, longClass.substr(0, 63)) && FieldIs(next + 180, 512, longMessage.substr(0, 511))));
}

TEST_CASE("the caller's last-error code survives every kind of log call; wide text goes through the ANSI code page")
{
    EnsureRing();
    const std::string nonce = Nonce();
    const std::wstring wide = L"wide-" + std::wstring(nonce.begin(), nonce.end());
    const std::string longText(3000, 'L');
    const std::function<void()> calls[] = {
        [&] { TarnLog::Log("LastError::Probe", 2, "LastError: debug %s.", nonce.c_str()); },
        [&] { TarnLog::Log("LastError::Probe", 0, "LastError: error %s (critical file too).", nonce.c_str()); },
        [&] { TarnLog::Log("LastError::Probe", 2, "LastError: bad %n format"); },
        [&] { TarnLog::Log("LastError::Probe", 2, "Wide: %S and %ls.", wide.c_str(), L"more"); },
        [&] { TarnLog::Log("LastError::Probe", 2, "%s", longText.c_str()); },
        [&] { TarnLog::Log(nullptr, 2, nullptr); },
    };
    for (DWORD code : {DWORD{0xBEEF0001u}, DWORD{ERROR_SUCCESS}})
        for (const auto& call : calls)
            CHECK((::SetLastError(code), call(), ::GetLastError() == code));
    CHECK(RingReader().RecordsWith("Wide: wide-" + nonce + " and more.").size() == 2);
}

TEST_CASE("the logger's registry values decide where a record goes: ring, critical file, debugger output")
{
    EnsureRing();
    DebuggerOutput debugger;
    REQUIRE(debugger.Ready());
    std::vector<uint8_t> zero4(4, 0), one4{1, 0, 0, 0};
    const struct { const char* what; std::vector<Value> values; bool ringDebug, ringError, critical, debuggerDebug, debuggerError; }
    table[] = {
        {"defaults", {}, true, true, true, false, false},
        {"FilterLogLevel 1", {Dword("FilterLogLevel", 1)}, false, true, true, false, false},
        {"FilterLogLevel 0", {Dword("FilterLogLevel", 0)}, false, false, true, false, false},
        {"EnableCriticalLogger 0", {Dword("EnableCriticalLogger", 0)}, true, true, false, false, false},
        {"EnableOutputDebugString 1", {Dword("EnableOutputDebugString", 1)}, true, true, true, true, true},
        {"debugger filtered too", {Dword("EnableOutputDebugString", 1), Dword("FilterLogLevel", 1)}, false, true, true, false, true},
        // Only a 4-byte REG_DWORD counts: look-alikes of 0 and 1 leave the defaults in force.
        {"FilterLogLevel \"0\"", {{"FilterLogLevel", REG_SZ, {'0', 0}}}, true, true, true, false, false},
        {"FilterLogLevel binary 0", {{"FilterLogLevel", REG_BINARY, zero4}}, true, true, true, false, false},
        {"EnableCriticalLogger binary 0", {{"EnableCriticalLogger", REG_BINARY, zero4}}, true, true, true, false, false},
        {"EnableOutputDebugString binary 1", {{"EnableOutputDebugString", REG_BINARY, one4}}, true, true, true, false, false},
    };
    for (const auto& row : table) {
        INFO(std::string(row.what));
        const std::string nonce = Nonce(), debugText = "Config: debug " + nonce + ".", errorText = "Config: error " + nonce + ".";
        LoggerValues values(row.values);
        TarnLog::Log("Config::Probe", 2, "%s", debugText.c_str());
        TarnLog::Log("Config::Probe", 0, "%s", errorText.c_str());

        const struct { const std::string& text; bool ring, debugger; } records[] = {
            {debugText, row.ringDebug, row.debuggerDebug}, {errorText, row.ringError, row.debuggerError}};
        for (const auto& record : records) {
            const auto inRing = RingReader().RecordsWith(record.text);
            const std::string line = debugger.WaitFor(record.text, row.debuggerDebug || row.debuggerError ? 5000 : 300);
            CHECK((inRing.size() == (record.ring ? 1u : 0u) && line.empty() != record.debugger));
            if (!line.empty() && !inRing.empty())  // the record's text form, the critical file's line
                CHECK(line == TarnLog::FormatRecordText(inRing[0]));
        }
        CHECK(CriticalFileHas("[Class: Config::Probe][Msg: " + errorText + "]") == row.critical);
    }
}

TEST_CASE("a second process adopts the ring's entry count whatever its registry says; a damaged count is left alone")
{
    EnsureRing();
    RingHeaderEditor editor;
    const uint32_t count = editor.Header().entryCount;
    REQUIRE(count > 0);
    LoggerValues entries({Dword("NumberOfLogEntries", count == 100 ? 150 : 100)});
    struct Restore { RingHeaderEditor& editor; uint32_t count;
        ~Restore() { editor.Edit([&](uint8_t* base, size_t) { std::memcpy(base + 8, &count, 4); }); } } restore{editor, count};
    const uint32_t tooMany = static_cast<uint32_t>((editor.View().Size() - 292) / 692 + 1);
    for (uint32_t damaged : {count, 0u, 0xFFFFFFFFu, tooMany}) {
        INFO("entry count " << damaged);
        REQUIRE(editor.Edit([&](uint8_t* base, size_t) { std::memcpy(base + 8, &damaged, 4); }));
        // A process that adopts the ring now must not trust a damaged count: no record, no crash.
        const uint32_t counter = editor.Header().writeCounter, written = damaged == count ? 5 : 0;
        const auto child = RunLogWriter({L"--count", L"5", L"--error-every", L"2", L"--class", L"Damaged::Probe"});
        CHECK((child.started && child.exitCode == 0));
        CHECK((editor.Header().writeCounter == counter + written && editor.Header().entryCount == damaged));

        // This process validated the count when it attached; it goes on with its own copy.
        const std::string nonce = Nonce();
        TarnLog::Log("Damaged::Probe", 2, "Damaged: own record %s.", nonce.c_str());
        std::vector<uint8_t> bytes;
        REQUIRE(editor.Edit([&](uint8_t* base, size_t size) { bytes.assign(base, base + size); }));
        const auto entry = [&](uint32_t n) { return &bytes[292 + static_cast<size_t>(n % count) * 692]; };
        CHECK((Le32(&bytes[4]) == counter + written + 1 &&
               FieldIs(entry(counter + written) + 180, 512, "Damaged: own record " + nonce + ".")));
        CHECK((!written || (FieldIs(entry(counter), 32, "logwriter.exe") && FieldIs(entry(counter) + 32, 64, "Damaged::Probe"))));
        CHECK(RingReader().RecordsWith(nonce).size() == (written ? 1u : 0u));  // readers refuse a damaged count
    }
}

TEST_CASE("a reader's event is set by the next record of every process until it leaves, and keeps the security "
          "another process made it with (Wine shows a label only as a SACL appearing); bad slot names are skipped")
{
    EnsureRing();
    SlotsRestorer restore;
    uint8_t unterminated[40] = {}, backslash[40] = "Bad\\Name";
    std::memset(unterminated, 'A', 32);
    unterminated[32] = backslash[32] = 1;
    REQUIRE((restore.Editor().WriteSlot(1, unterminated) && restore.Editor().WriteSlot(2, backslash)));
    const auto readerEvent = [](const std::string& name) {
        return TarnBase::UniqueHandle(::CreateEventA(nullptr, TRUE, FALSE, TarnBase::MakeKernelObjectName(name, true).c_str()));
    };
    const std::string name = "TarnLogTest." + std::to_string(::GetCurrentProcessId()) + ".3";
    TarnBase::UniqueHandle event = readerEvent(name);
    REQUIRE(restore.Editor().PublishEvent(3, name));
    // Names a reader overrunning slot 1 could have made of its bytes.
    TarnBase::UniqueHandle overruns[] = {readerEvent(std::string(31, 'A')), readerEvent(std::string(32, 'A')),
                                         readerEvent(std::string(32, 'A') + "\x01")};
    TarnLog::Log("Slot::Probe", 2, "Slot: from this process.");
    CHECK((IsSet(event.Get(), 2000) && !IsSet(overruns[0].Get()) && !IsSet(overruns[1].Get()) && !IsSet(overruns[2].Get())));
    CHECK((::ResetEvent(event.Get()) && RunLogWriter({L"--count", L"1", L"--class", L"Slot::Probe"}).exitCode == 0));
    CHECK(IsSet(event.Get()));
    PACL label = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    REQUIRE(::GetSecurityInfo(event.Get(), SE_KERNEL_OBJECT, LABEL_SECURITY_INFORMATION, nullptr, nullptr, nullptr,
                              &label, &descriptor) == ERROR_SUCCESS);
    const TarnBase::UniqueLocal owned(descriptor);
    CHECK(label == nullptr);

    // Once the slot is cleared (and the generation moved) the writers let the event go.
    REQUIRE((restore.Editor().ClearSlot(3) && ::ResetEvent(event.Get())));
    TarnLog::Log("Slot::Probe", 2, "Slot: after the reader left.");
    CHECK_FALSE(IsSet(event.Get()));
}
