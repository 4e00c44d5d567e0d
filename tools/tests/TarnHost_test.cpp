// tarnhost.exe run as a test or demo would run it: a script file, a command line, and
// what comes back on stdout, stderr and the exit code.

#include <windows.h>
#include <objbase.h>

#include "ChildProcess.h"

#include <doctest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Run {
    DWORD exitCode = 0xFFFFFFFF;
    std::string rawOut;
    std::string out; // CR LF line ends turned into LF
    std::string err;
};

std::string WithoutCarriageReturns(const std::string& text)
{
    std::string plain;
    for (char c : text)
        if (c != '\r')
            plain += c;
    return plain;
}

std::wstring Widen(const std::string& text)
{
    return std::wstring(text.begin(), text.end());
}

// The build tree comes from TARN_BINARY_DIR (a Unix path under Wine, reachable through Z:),
// else from where this test program itself lives, beside tarnhost.exe.
std::wstring HostExecutable()
{
    if (const char* binary = std::getenv("TARN_BINARY_DIR"); binary && *binary) {
        std::wstring dir = Widen(binary);
        if (dir[0] == L'/')
            dir = L"Z:" + dir;
        for (auto& c : dir)
            if (c == L'/')
                c = L'\\';
        return dir + L"\\tools\\tarnhost\\tarnhost.exe";
    }
    wchar_t self[MAX_PATH];
    const DWORD size = ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, size);
    return path.substr(0, path.find_last_of(L"\\/") + 1) + L"tarnhost.exe";
}


std::string Drain(HANDLE pipe)
{
    std::string data;
    char buffer[4096];
    DWORD read = 0;
    while (::ReadFile(pipe, buffer, sizeof buffer, &read, nullptr) && read > 0)
        data.append(buffer, read);
    return data;
}

Run RunHost(const std::vector<std::wstring>& args)
{
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE outRead = nullptr, outWrite = nullptr, errRead = nullptr, errWrite = nullptr;
    REQUIRE(::CreatePipe(&outRead, &outWrite, &inherit, 0));
    REQUIRE(::CreatePipe(&errRead, &errWrite, &inherit, 0));
    ::SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
    ::SetHandleInformation(errRead, HANDLE_FLAG_INHERIT, 0);

    std::wstring commandLine = TarnTest::QuoteArgument(HostExecutable());
    for (const auto& arg : args)
        commandLine += L" " + TarnTest::QuoteArgument(arg);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = outWrite;
    startup.hStdError = errWrite;
    PROCESS_INFORMATION process{};
    const BOOL started = ::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                          &startup, &process);
    ::CloseHandle(outWrite);
    ::CloseHandle(errWrite);
    Run run;
    if (!started) {
        ::CloseHandle(outRead);
        ::CloseHandle(errRead);
        FAIL("cannot start tarnhost.exe, error " << ::GetLastError());
        return run;
    }
    std::string err;
    std::thread errReader([&] { err = Drain(errRead); });
    const std::string out = Drain(outRead);
    errReader.join();
    if (::WaitForSingleObject(process.hProcess, 30000) != WAIT_OBJECT_0) {
        ::TerminateProcess(process.hProcess, 99);
        FAIL("tarnhost.exe did not end");
    }
    ::GetExitCodeProcess(process.hProcess, &run.exitCode);
    ::CloseHandle(process.hProcess);
    ::CloseHandle(process.hThread);
    ::CloseHandle(outRead);
    ::CloseHandle(errRead);
    run.rawOut = out;
    run.out = WithoutCarriageReturns(out);
    run.err = WithoutCarriageReturns(err);
    return run;
}

// A script file in a fresh temporary directory, removed again at the end of the test.
class ScriptFile {
public:
    ScriptFile(const std::string& name, const std::string& bytes)
    {
        wchar_t temp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, temp);
        m_dir = std::wstring(temp) + L"tarnhost-test-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                std::to_wstring(++s_counter);
        ::CreateDirectoryW(m_dir.c_str(), nullptr);
        m_path = m_dir + L"\\" + Widen(name);
        HANDLE file = ::CreateFileW(m_path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        REQUIRE(file != INVALID_HANDLE_VALUE);
        DWORD written = 0;
        ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        ::CloseHandle(file);
    }
    ~ScriptFile()
    {
        ::DeleteFileW(m_path.c_str());
        ::RemoveDirectoryW(m_dir.c_str());
    }
    const std::wstring& Path() const { return m_path; }

private:
    static inline int s_counter = 0;
    std::wstring m_dir;
    std::wstring m_path;
};

// Options first, then the script, then the script's own arguments.
Run RunScript(const std::string& name, const std::string& text, std::vector<std::wstring> options,
              const std::vector<std::wstring>& scriptArgs = {})
{
    ScriptFile script(name, text);
    options.push_back(script.Path());
    options.insert(options.end(), scriptArgs.begin(), scriptArgs.end());
    return RunHost(options);
}

Run RunJs(const std::string& text, std::vector<std::wstring> options = {L"--controls", L"0"})
{
    return RunScript("page.js", text, std::move(options));
}

bool IsOneErrorLine(const std::string& err)
{
    return err.rfind("tarnhost: ", 0) == 0 && err.find('\n') == err.size() - 1;
}

bool TarnSMRegistered()
{
    static const bool registered = [] {
        const HRESULT init = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        CLSID clsid{};
        const bool found = SUCCEEDED(::CLSIDFromProgID(L"TarnSM.TarnSM", &clsid));
        if (SUCCEEDED(init))
            ::CoUninitialize();
        return found;
    }();
    return registered;
}

} // namespace

TEST_SUITE("tarnhost: scripts and exit codes")
{
    TEST_CASE("JScript values are echoed as JavaScript would print them")
    {
        const Run run = RunJs("host.Echo('text', 42, -1.5, true, false, null, undefined);\n"
                              "host.Echo(0.1 + 0.2, 1e21, 1e-7, 123456789012, NaN, -Infinity);\n"
                              "host.Echo();\n"
                              "host.Echo({ toString: function () { return 'custom'; } });\n");
        CHECK(run.exitCode == 0);
        CHECK(run.out == "text 42 -1.5 true false null undefined\n"
                         "0.30000000000000004 1e+21 1e-7 123456789012 NaN -Infinity\n"
                         "\n"
                         "custom\n");
        CHECK(run.err.empty());
    }

    TEST_CASE("VBScript: variables passed by reference, Empty, and member names in any case")
    {
        const Run run = RunScript("page.vbs",
                                  "Dim n\r\nn = 3\r\nhost.Echo \"vb\", n, 2.5, True, Null, Empty\r\n"
                                  "host.quit 5\r\nhost.Echo \"after quit\"\r\n",
                                  {L"--controls", L"0"});
        CHECK(run.exitCode == 5);
        CHECK(run.out == "vb 3 2.5 true null \n");
    }

    TEST_CASE("Quit ends the script at once, even inside try/catch")
    {
        Run run = RunJs("host.Echo('before'); host.Quit(7); host.Echo('after');");
        CHECK(run.exitCode == 7);
        CHECK(run.out == "before\n");
        CHECK(run.err.empty());

        run = RunJs("try { host.Quit(9); } catch (e) { host.Echo('caught'); }\nhost.Echo('went on');\n");
        CHECK(run.exitCode == 9);
        CHECK(run.out.empty());
        CHECK(run.err.empty());

        run = RunJs("host.Quit();");
        CHECK(run.exitCode == 0);

        run = RunJs("function f() { host.Quit(11); } f(); host.Echo('no');");
        CHECK(run.exitCode == 11);
        CHECK(run.out.empty());
    }

    TEST_CASE("a script that ends normally exits 0; lines end in CR LF")
    {
        Run run = RunJs("var x = 1;");
        CHECK(run.exitCode == 0);
        CHECK(run.out.empty());
        CHECK(run.err.empty());

        run = RunJs("host.Echo('a'); host.Echo('b');");
        CHECK(run.rawOut == "a\r\nb\r\n");
    }

    TEST_CASE("script errors: one line with description and line number, exit 4")
    {
        Run run = RunJs("host.Echo('first');\nnoSuchThing.call();\nhost.Echo('never');\n");
        CHECK(run.exitCode == 4);
        CHECK(run.out == "first\n");
        CHECK(IsOneErrorLine(run.err));
        CHECK(run.err.rfind("tarnhost: script error: ", 0) == 0);
        CHECK(run.err.find("(line 2)") != std::string::npos);

        run = RunJs("var ok = 1;\n\nvar broken = ;\n");
        CHECK(run.exitCode == 4);
        CHECK(IsOneErrorLine(run.err));
        CHECK(run.err.find("(line 3)") != std::string::npos);

        run = RunJs("throw new Error('page gave up');");
        CHECK(run.exitCode == 4);
        CHECK(run.err.find("page gave up") != std::string::npos);

        run = RunScript("page.vbs", "host.Echo 1\r\nx = 1 / 0\r\n", {L"--controls", L"0"});
        CHECK(run.exitCode == 4);
        CHECK(run.out == "1\n");
        CHECK(run.err.find("(line 2)") != std::string::npos);
    }

    TEST_CASE("arguments after the script path reach the script")
    {
        ScriptFile script("args.js", "host.Echo(host.ArgCount);\n"
                                     "for (var i = 0; i < host.ArgCount; i++) host.Echo(host.Arg(i));\n");
        Run run = RunHost({L"--controls", L"0", script.Path(), L"one", L"two words", L"--url"});
        CHECK(run.exitCode == 0);
        CHECK(run.out == "3\none\ntwo words\n--url\n");

        run = RunJs("host.Arg(0);");
        CHECK(run.exitCode == 4);
        CHECK(run.err.find("host.Arg") != std::string::npos);
    }

    TEST_CASE("the engine follows the extension unless --engine says otherwise")
    {
        Run run = RunScript("page.txt", "host.Echo \"from vb\"\r\n", {L"--controls", L"0", L"--engine", L"vbscript"});
        CHECK(run.exitCode == 0);
        CHECK(run.out == "from vb\n");

        run = RunScript("page.VBS", "host.Echo \"upper case\"\r\n", {L"--controls", L"0"});
        CHECK(run.out == "upper case\n");

        // JScript text in a .vbs file, run as JScript.
        run = RunScript("page.vbs", "host.Echo(typeof host);", {L"--controls", L"0", L"--engine", L"jscript"});
        CHECK(run.out == "object\n");
    }

    TEST_CASE("UTF-8 scripts with and without byte order mark come out as UTF-8")
    {
        Run run = RunJs("host.Echo('gr\xC3\xBC\xC3\x9F \xE2\x82\xAC');");
        CHECK(run.out == "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC\n");
        run = RunJs("\xEF\xBB\xBFhost.Echo('\xC3\xA9t\xC3\xA9');");
        CHECK(run.out == "\xC3\xA9t\xC3\xA9\n");
    }
}

TEST_SUITE("tarnhost: command line")
{
    TEST_CASE("usage mistakes exit 2 with one line on stderr")
    {
        struct Case {
            std::vector<std::wstring> args;
            const char* reason;
        };
        ScriptFile script("page.js", "host.Echo('ran');");
        const std::wstring path = script.Path();
        const Case cases[] = {
            {{}, "no script file given"},
            {{L"--bogus", path}, "unknown option '--bogus'"},
            {{L"--controls", L"0", path, L"--url"}, nullptr}, // after the script: the script's argument
            {{L"--url"}, "option --url needs a value"},
            {{L"--controls", L"many", path}, "--controls must be"},
            {{L"--controls", L"65", path}, "--controls must be"},
            {{L"--engine", L"perl", path}, "--engine must be"},
            {{L"--zone", L"127.0.0.1=5", L"--url", L"http://127.0.0.1/", path}, "zone must be 0..4"},
            {{L"--zone", L"127.0.0.1", L"--url", L"http://127.0.0.1/", path}, "--zone expects"},
            {{L"--zone", L"127.0.0.1=1", path}, "--zone needs --url"},
            {{L"--site-mode", L"no-browser", path}, "--site-mode needs --url"},
            {{L"--site-mode", L"sideways", L"--url", L"x", path}, "--site-mode must be"},
            {{L"--param", L"NoValue", path}, "--param expects"},
            {{L"--param", L"3:VendorID=x", L"--controls", L"2", path}, "is for control 3"},
            {{L"--param", L"0:VendorID=x", path}, "bad control number"},
            {{L"--no-secmgr", L"--zone", L"a=1", L"--url", L"x", path}, "exclude each other"},
        };
        for (const Case& c : cases) {
            const Run run = RunHost(c.args);
            std::wstring shown;
            for (const auto& a : c.args)
                shown += a + L" ";
            CAPTURE(std::string(shown.begin(), shown.end()));
            CAPTURE(run.err);
            if (!c.reason) {
                CHECK(run.exitCode == 0);
                CHECK(run.out == "ran\n");
                continue;
            }
            CHECK(run.exitCode == 2);
            CHECK(IsOneErrorLine(run.err));
            CHECK(run.err.find(c.reason) != std::string::npos);
            CHECK(run.out.empty());
        }
    }

    TEST_CASE("a missing or unusable script file exits 2")
    {
        Run run = RunHost({L"--controls", L"0", L"Z:\\no\\such\\dir\\page.js"});
        CHECK(run.exitCode == 2);
        CHECK(IsOneErrorLine(run.err));
        CHECK(run.err.find("cannot open script file") != std::string::npos);

        run = RunScript("page.py", "print(1)", {L"--controls", L"0"});
        CHECK(run.exitCode == 2);
        CHECK(run.err.find("cannot tell the engine") != std::string::npos);
    }

    TEST_CASE("--help prints the usage and exits 0")
    {
        const Run run = RunHost({L"--help"});
        CHECK(run.exitCode == 0);
        CHECK(run.out.find("usage: tarnhost.exe") != std::string::npos);
        CHECK(run.out.find("--site-mode") != std::string::npos);
    }
}

TEST_SUITE("tarnhost: controls as a browser creates them")
{
    TEST_CASE("an object without IObjectSafety is refused like an unsafe control")
    {
        const Run run = RunJs("host.Echo('ran');", {L"--progid", L"Scripting.Dictionary"});
        CHECK(run.exitCode == 3);
        CHECK(run.out.empty());
        CHECK(IsOneErrorLine(run.err));
        CHECK(run.err.find("IObjectSafety") != std::string::npos);
        CHECK(run.err.find("0x80004002") != std::string::npos);
    }

    TEST_CASE("an unknown ProgID names the failing step and its HRESULT")
    {
        const Run run = RunJs("host.Echo('ran');", {L"--progid", L"No.Such.Control"});
        CHECK(run.exitCode == 3);
        CHECK(IsOneErrorLine(run.err));
        CHECK(run.err.find("CLSIDFromProgID failed: 0x800401F3") != std::string::npos);
    }

    // Wine's XMLHTTP is safe for scripting and can be sited, but takes no parameters.
    TEST_CASE("several controls are named TarnSM, TarnSM2, ... and reachable through host.Control")
    {
        Run run = RunJs("host.Echo(typeof TarnSM, typeof TarnSM2, typeof TarnSM3, typeof TarnSM4);\n"
                        "host.Echo(host.Control(1) === TarnSM, host.Control(3) === TarnSM3,"
                        " host.Control(2) === TarnSM3);\n",
                        {L"--progid", L"Msxml2.XMLHTTP", L"--controls", L"3", L"--url", L"http://127.0.0.1/p.html"});
        CHECK(run.exitCode == 0);
        CHECK(run.out == "object object object undefined\ntrue true false\n");
        CHECK(run.err.empty());

        run = RunJs("host.Control(2);", {L"--progid", L"Msxml2.XMLHTTP"});
        CHECK(run.exitCode == 4);
        CHECK(run.err.find("host.Control") != std::string::npos);
    }

    TEST_CASE("page parameters for a control that cannot load them stop the page")
    {
        const Run run =
            RunJs("host.Echo('ran');", {L"--progid", L"Msxml2.XMLHTTP", L"--param", L"VendorID=acme"});
        CHECK(run.exitCode == 3);
        CHECK(run.out.empty());
        CHECK(run.err.find("control 1 (Msxml2.XMLHTTP): QueryInterface(IPersistPropertyBag) failed: 0x80004002") !=
              std::string::npos);

        // A numbered parameter goes to that control only: the first one is created fine.
        const Run second = RunJs("host.Echo('ran');", {L"--progid", L"Msxml2.XMLHTTP", L"--controls", L"3",
                                                       L"--param", L"2:VendorID=acme"});
        CHECK(second.exitCode == 3);
        CHECK(second.err.find("control 2 (Msxml2.XMLHTTP): QueryInterface(IPersistPropertyBag)") !=
              std::string::npos);
    }
}

TEST_SUITE("tarnhost: with the TarnSM control")
{
    TEST_CASE("a VendorID page parameter reads back in script" * doctest::skip(!TarnSMRegistered()))
    {
        const Run run = RunJs("host.Echo(TarnSM.VendorID);", {L"--param", L"VendorID=acme"});
        CHECK(run.exitCode == 0);
        CHECK(run.out == "acme\n");
        CHECK(run.err.empty());
    }

    TEST_CASE("the vendor id given to the first control is the second control's too" *
              doctest::skip(!TarnSMRegistered()))
    {
        const Run run = RunJs("host.Echo(TarnSM2.VendorID);", {L"--controls", L"2", L"--param", L"1:VendorID=x"});
        CHECK(run.exitCode == 0);
        CHECK(run.out == "x\n");
    }

    TEST_CASE("the current site is available only when the page has one" * doctest::skip(!TarnSMRegistered()))
    {
        const std::string script = "host.Echo(TarnSM.IsCurrentSiteAvailable());";
        Run run = RunJs(script, {L"--url", L"http://127.0.0.1/page.html"});
        CHECK(run.exitCode == 0);
        CHECK(run.out == "true\n");

        run = RunJs(script, {});
        CHECK(run.exitCode == 0);
        CHECK(run.out == "false\n");

        for (const wchar_t* mode : {L"no-service-provider", L"no-browser", L"location-fails"}) {
            CAPTURE(std::string(mode, mode + wcslen(mode)));
            run = RunJs(script, {L"--url", L"http://127.0.0.1/page.html", L"--site-mode", mode});
            CHECK(run.out == "false\n");
        }
    }

    TEST_CASE("the page's own security manager decides whether the site is local" *
              doctest::skip(!TarnSMRegistered()))
    {
        const std::string script = "host.Echo(TarnSM.IsCurrentSiteLocal());";
        Run run = RunJs(script, {L"--url", L"http://127.0.0.1/page.html", L"--zone", L"127.0.0.1=0"});
        CHECK(run.out == "true\n");
        run = RunJs(script, {L"--url", L"http://127.0.0.1/page.html", L"--zone", L"127.0.0.1=1"});
        CHECK(run.out == "false\n");
        // Without a page security manager the control's own one puts http pages in zone 3.
        run = RunJs(script, {L"--url", L"http://127.0.0.1/page.html", L"--no-secmgr"});
        CHECK(run.out == "false\n");
    }
}
