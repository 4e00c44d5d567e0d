#pragma once
// The local test web server (testing/http/tarnhttp.py), started once per test run by the
// "wine" fixture (testing/wine-env.sh) and serving the whole build tree. Its port and root
// are in C:\tarnweb.port. A TestServer names one directory under that root: its URLs and
// request counts are relative to it, so "/x.dll" of TestServer(<build>/trustfiles/www) is
// /trustfiles/www/x.dll on the server. Leading "__name=value" directive segments stay in
// front, where the server looks for them.

#include "ChildProcess.h"

#include <winsock2.h>
#include <wininet.h>
#include <windows.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <string>

namespace TarnTest {

// The Unix path Wine gives a Windows path (empty when Wine cannot tell, or outside Wine).
inline std::string UnixPathOf(const std::wstring& windowsPath)
{
    using Convert = char*(CDECL*)(const wchar_t*);
    const auto convert = reinterpret_cast<Convert>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    char* unixPath = convert ? convert(windowsPath.c_str()) : nullptr;
    const std::string result = unixPath ? unixPath : "";
    if (unixPath)
        ::HeapFree(::GetProcessHeap(), 0, unixPath);
    return result;
}

// A loopback port that nothing listens on: bound and closed again, so a connection is refused.
inline unsigned short UnusedLocalPort()
{
    WSADATA data{};
    if (::WSAStartup(MAKEWORD(2, 2), &data) != 0)
        return 0;
    const SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
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
        std::string servedRoot;
        if (!(file >> m_port >> servedRoot)) {
            m_port = 0;
            m_error = "the web server is not running (testing/wine-env.sh up starts it)";
            return;
        }
        std::string root = unixRoot;
        while (!root.empty() && root.back() == '/')
            root.pop_back();
        if (!root.empty() && root.compare(0, servedRoot.size(), servedRoot) != 0) {
            m_port = 0;
            m_error = unixRoot + " is outside the served tree " + servedRoot;
            return;
        }
        m_prefix = root.empty() ? "" : root.substr(servedRoot.size());
    }
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    bool Running() const { return m_port != 0; }
    const std::string& Error() const { return m_error; }
    unsigned short Port() const { return m_port; }

    // "http://127.0.0.1:<port>" followed by `pathAndQuery` (which starts with '/').
    std::string Url(const std::string& pathAndQuery) const
    {
        return "http://127.0.0.1:" + std::to_string(m_port) + OnServer(pathAndQuery);
    }

    // How often the server was asked for `path` (without the query); -1 when it cannot tell.
    long RequestCount(const std::string& path) const
    {
        std::string body;
        if (!Get("/__count?path=" + Escape(OnServer(path)), body) || body.empty())
            return -1;
        return std::strtol(body.c_str(), nullptr, 10);
    }

    bool ResetCounts() const
    {
        std::string body;
        return Get("/__reset", body);
    }

private:
    std::string OnServer(const std::string& path) const
    {
        size_t at = 0;
        while (path.compare(at, 3, "/__") == 0 && path.find('=', at) < path.find('/', at + 1))
            at = path.find('/', at + 1) == std::string::npos ? path.size() : path.find('/', at + 1);
        return path.substr(0, at) + m_prefix + path.substr(at);
    }

    static std::string Escape(const std::string& text)
    {
        static const char hex[] = "0123456789ABCDEF";
        std::string escaped;
        for (unsigned char c : text)
            if (isalnum(c) || c == '/' || c == '.' || c == '-' || c == '_')
                escaped += static_cast<char>(c);
            else
                escaped += std::string("%") + hex[c >> 4] + hex[c & 15];
        return escaped;
    }

    bool Get(const std::string& pathAndQuery, std::string& body) const
    {
        body.clear();
        if (!Running())
            return false;
        const HINTERNET session = ::InternetOpenA("TarnTest", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
        const std::string url = "http://127.0.0.1:" + std::to_string(m_port) + pathAndQuery;
        const HINTERNET request = session ? ::InternetOpenUrlA(session, url.c_str(), nullptr, 0,
                                                              INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE, 0)
                                          : nullptr;
        DWORD status = 0, size = sizeof status, read = 0;
        const bool ok = request && ::HttpQueryInfoA(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status,
                                                    &size, nullptr) && status == 200;
        char buffer[256];
        while (ok && ::InternetReadFile(request, buffer, sizeof buffer, &read) && read > 0)
            body.append(buffer, read);
        if (request)
            ::InternetCloseHandle(request);
        if (session)
            ::InternetCloseHandle(session);
        return ok;
    }

    unsigned short m_port = 0;
    std::string m_prefix;
    std::string m_error;
};

} // namespace TarnTest
