// The scripting boundary every scripted member runs through: whatever the body throws, the
// caller gets E_FAIL, error information naming the case, and the records that say why.
#include "LogCapture.h"

#include "TarnBase/win/Owners.h"
#include "TarnSM/win/ScriptBoundary.h"

#include <doctest.h>

#include <wrl/client.h>

TEST_CASE("boundary table: thrown kind -> description, records (level, text)")
{
    const TarnBase::ComApartment com;
    // {thrown: 0 a platform status code, 1 a library exception, 2 anything else -> description, records}
    struct Row { int kind; const wchar_t* description; std::vector<std::pair<unsigned, std::string>> records; };
    const Row rows[] = {
        {0, L"ATL_ERROR", {{1, "Probe():  Exception - Unknown."}}},
        {1, L"NULL_POINTER_ERROR", {{1, "Probe():  Exception - NULL_POINTER_ERROR.  Extended Data = <>"}}},
        {2, L"UNKNOWN_EXCEPTION_ERROR",
         {{4, "Probe():  Exception - Unknown."}, {0, "Unhandled unknown exception detected. File: .\\TarnSM Line: "}}},
    };
    for (const Row& row : rows) {
        CAPTURE(row.kind);
        TarnTest::LogCapture capture;
        const HRESULT hr = TarnSMX::RunGuarded("Probe", [&]() -> HRESULT {
            if (row.kind == 0)
                throw TarnSMX::ComError(E_OUTOFMEMORY);
            if (row.kind == 1)
                throw TarnBase::NullPointerException();
            throw 42;
        });
        CHECK(hr == E_FAIL);
        Microsoft::WRL::ComPtr<IErrorInfo> error;
        REQUIRE(::GetErrorInfo(0, &error) == S_OK);
        TarnBase::UniqueBstr description, source;
        error->GetDescription(description.Put());
        error->GetSource(source.Put());
        CHECK(std::wstring(description.Get()) + L"|" + source.Get() == std::wstring(row.description) + L"|TarnSM.TarnSM.1");
        // Exactly these records, in this order, each matched by level and prefix.
        std::vector<std::pair<unsigned, std::string>> seen;
        for (const auto& r : capture.Records())
            if (r.className == "TarnSMX::TarnSM") {
                const size_t n = seen.size() < row.records.size() ? row.records[seen.size()].second.size() : r.message.size();
                seen.push_back({r.level, r.message.substr(0, n)});
            }
        CHECK(seen == row.records);
    }
}
