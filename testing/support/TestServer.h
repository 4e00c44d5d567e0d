#pragma once
// The local web server (testing/http/tarnhttp.py) that the "wine" fixture starts once per
// run, serving the build tree; its port and root are in C:\tarnweb.port. A TestServer names
// one directory below that root: "/x.dll" of TestServer(<build>/trustfiles/www) is
// /trustfiles/www/x.dll on the server, after any leading "__name=value" directive segments.

#include "ChildProcess.h"

#include <winsock2.h>
#include "TarnBase/win/Handle.h"

#include <wininet.h>
#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace TarnTest {

// The Unix path Wine gives a Windows path (empty when Wine cannot tell, or outside Wine).
inline std::string UnixPathOf(const std::wstring& windowsPath)
{
    const auto convert = reinterpret_cast<char*(CDECL*)(const wchar_t*)>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    char* unixPath = convert ? convert(windowsPath.c_str()) : nullptr;
    const std::string result = unixPath ? unixPath : "";
    ::HeapFree(::GetProcessHeap(), 0, unixPath);
    return result;
}

// A loopback port that nothing listens on: bound and closed again, so a connection is refused.
inline unsigned short UnusedLocalPort()
{
    WSADATA data{};
    ::WSAStartup(MAKEWORD(2, 2), &data);
    const SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{AF_INET, 0, {}, {}};
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    int length = sizeof address;
    const bool bound = ::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    ::closesocket(s);
    return bound ? ::ntohs(address.sin_port) : 0;
}

class TestServer {
public:
    // `unixRoot`: the directory to serve, as a Unix path inside the build tree.
    explicit TestServer(const std::string& unixRoot = std::string())
    {
        std::ifstream file("C:\\tarnweb.port");
        std::string served;
        if (!(file >> m_port >> served) || unixRoot.compare(0, served.size(), served) != 0)
            m_port = 0, m_error = "no web server serving " + unixRoot + " (testing/wine-env.sh up starts it)";
        m_prefix = unixRoot.substr(std::min(served.size(), unixRoot.size()));
    }
    bool Running() const { return m_port != 0; }
    const std::string& Error() const { return m_error; }

    // "http://127.0.0.1:<port>" followed by `pathAndQuery` (which starts with '/').
    std::string Url(const std::string& pathAndQuery) const
    {
        size_t at = 0;
        while (pathAndQuery.compare(at, 3, "/__") == 0 && pathAndQuery.find('=', at) < pathAndQuery.find('/', at + 1))
            at = std::min(pathAndQuery.find('/', at + 1), pathAndQuery.size());
        return Base() + pathAndQuery.substr(0, at) + m_prefix + pathAndQuery.substr(at);
    }

    // Requests for `path` (no query, nor '&', '+', '%', '#' or spaces); -1 when it cannot tell.
    long RequestCount(const std::string& path) const
    {
        const std::string body = Get("/__count?path=" + Url(path).substr(Base().size()));
        return body.empty() ? -1 : std::strtol(body.c_str(), nullptr, 10);
    }
    bool ResetCounts() const { return Get("/__reset") == "reset"; }

private:
    std::string Base() const { return "http://127.0.0.1:" + std::to_string(m_port); }

    // The server's own control pages. A busy machine can refuse a connection now and then; a
    // control request changes nothing twice, so it is tried a few times.
    std::string Get(const std::string& pathAndQuery) const
    {
        std::string body;
        for (int attempt = 0; attempt < 3 && body.empty(); ++attempt) {
            const TarnBase::UniqueInternetHandle session(
                ::InternetOpenA("TarnTest", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
            const TarnBase::UniqueInternetHandle request(::InternetOpenUrlA(
                session.Get(), (Base() + pathAndQuery).c_str(), nullptr, 0,
                INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE, 0));
            char buffer[256];
            for (DWORD read = 0; request && ::InternetReadFile(request.Get(), buffer, sizeof buffer, &read) && read > 0;)
                body.append(buffer, read);
        }
        return body;
    }

    unsigned short m_port = 0;
    std::string m_prefix;
    std::string m_error;
};

} // namespace TarnTest
