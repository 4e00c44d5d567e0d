#pragma once
// Runs the local test web server (testing/http/tarnhttp.py) for the life of one object.
//
// Under Wine a Windows process can start a Unix program with CreateProcess (the path
// Z:\usr\bin\python3), but Wine hands it only standard handles that have a Unix
// descriptor behind them: anonymous pipes arrive as /dev/null, sockets and files arrive
// intact. So the server's stdin and stdout are one end of a loopback TCP connection. The
// server writes "PORT <n>" into it, and stops when the other end goes away: on
// destruction, or when this process dies. Wine makes that descriptor non-blocking, which
// the server's stdin watch would take for end of file, so a one-line wrapper makes it
// blocking before the script runs.
//
// Winsock is loaded at run time: the test programs that use this header do not link it.

#include "ChildProcess.h"
#include "TarnBase/win/Handle.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdlib>
#include <string>

namespace TarnTest {
namespace detail {

struct Winsock {
    decltype(&::WSAStartup) startup = nullptr;
    decltype(&::socket) socket = nullptr;
    decltype(&::bind) bind = nullptr;
    decltype(&::listen) listen = nullptr;
    decltype(&::getsockname) getsockname = nullptr;
    decltype(&::connect) connect = nullptr;
    decltype(&::accept) accept = nullptr;
    decltype(&::closesocket) closesocket = nullptr;
    decltype(&::recv) recv = nullptr;
    decltype(&::send) send = nullptr;
    decltype(&::setsockopt) setsockopt = nullptr;
    bool ready = false;
};

template <typename T>
bool Resolve(HMODULE module, const char* name, T& function)
{
    function = reinterpret_cast<T>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
    return function != nullptr;
}

inline const Winsock& Sockets()
{
    static const Winsock winsock = [] {
        Winsock w;
        // Kept loaded for the life of the process, like a linked import.
        const HMODULE module = ::LoadLibraryW(L"ws2_32.dll");
        if (module == nullptr)
            return w;
        bool ok = Resolve(module, "WSAStartup", w.startup) && Resolve(module, "socket", w.socket) &&
                  Resolve(module, "bind", w.bind) && Resolve(module, "listen", w.listen) &&
                  Resolve(module, "getsockname", w.getsockname) && Resolve(module, "connect", w.connect) &&
                  Resolve(module, "accept", w.accept) && Resolve(module, "closesocket", w.closesocket) &&
                  Resolve(module, "recv", w.recv) && Resolve(module, "send", w.send) &&
                  Resolve(module, "setsockopt", w.setsockopt);
        WSADATA data{};
        w.ready = ok && w.startup(MAKEWORD(2, 2), &data) == 0;
        return w;
    }();
    return winsock;
}

// One socket, closed on every path.
class Socket {
public:
    Socket() = default;
    explicit Socket(SOCKET s) : m_socket(s) {}
    ~Socket() { Reset(); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket(Socket&& other) noexcept : m_socket(other.m_socket) { other.m_socket = INVALID_SOCKET; }
    Socket& operator=(Socket&& other) noexcept
    {
        if (this != &other) {
            Reset(other.m_socket);
            other.m_socket = INVALID_SOCKET;
        }
        return *this;
    }
    SOCKET Get() const { return m_socket; }
    bool IsValid() const { return m_socket != INVALID_SOCKET; }
    void Reset(SOCKET s = INVALID_SOCKET)
    {
        if (m_socket != INVALID_SOCKET)
            Sockets().closesocket(m_socket);
        m_socket = s;
    }

private:
    SOCKET m_socket = INVALID_SOCKET;
};

inline sockaddr_in Loopback(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = static_cast<u_short>(((port & 0xFF) << 8) | (port >> 8));
    address.sin_addr.S_un.S_un_b = {127, 0, 0, 1};
    return address;
}

inline unsigned short PortOf(const sockaddr_in& address)
{
    return static_cast<unsigned short>(((address.sin_port & 0xFF) << 8) | (address.sin_port >> 8));
}

// A listening socket on a free loopback port.
inline Socket Listen(unsigned short& port)
{
    const Winsock& ws = Sockets();
    port = 0;
    if (!ws.ready)
        return Socket();
    Socket listener(ws.socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    sockaddr_in address = Loopback(0);
    int length = sizeof address;
    if (!listener.IsValid() || ws.bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ws.listen(listener.Get(), 1) != 0 ||
        ws.getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return Socket();
    port = PortOf(address);
    return listener;
}

inline Socket ConnectLoopback(unsigned short port, DWORD receiveTimeoutMs)
{
    const Winsock& ws = Sockets();
    if (!ws.ready)
        return Socket();
    Socket s(ws.socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    const sockaddr_in address = Loopback(port);
    if (!s.IsValid() || ws.connect(s.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return Socket();
    ws.setsockopt(s.Get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&receiveTimeoutMs),
                  sizeof receiveTimeoutMs);
    return s;
}

inline std::wstring FromUtf8(const std::string& text)
{
    return TarnTest::Widen(text);
}

} // namespace detail

// The Unix path Wine gives a Windows path (empty when Wine cannot tell, or outside Wine).
inline std::string UnixPathOf(const std::wstring& windowsPath)
{
    using Convert = char*(CDECL*)(const wchar_t*);
    const auto convert = reinterpret_cast<Convert>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    if (convert == nullptr)
        return std::string();
    char* unixPath = convert(windowsPath.c_str());
    if (unixPath == nullptr)
        return std::string();
    std::string result(unixPath);
    ::HeapFree(::GetProcessHeap(), 0, unixPath);
    return result;
}

// A loopback port that nothing listens on: it was bound and closed again, so a connection
// to it is refused at once.
inline unsigned short UnusedLocalPort()
{
    unsigned short port = 0;
    detail::Socket listener = detail::Listen(port);
    return listener.IsValid() ? port : 0;
}

class TestServer {
public:
    // `unixRoot`: the directory to serve, as a Unix path. The script comes from
    // TARN_SOURCE_DIR (set by ctest), else from the source tree the program was built from.
    explicit TestServer(const std::string& unixRoot)
    {
        const std::string python = EnvOr("TARN_PYTHON", "/usr/bin/python3");
        const std::string script = SourceDir() + "/testing/http/tarnhttp.py";

        unsigned short controlPort = 0;
        detail::Socket listener = detail::Listen(controlPort);
        detail::Socket ours = detail::ConnectLoopback(controlPort, kStartTimeoutMs);
        detail::Socket theirs(ours.IsValid() ? detail::Sockets().accept(listener.Get(), nullptr, nullptr)
                                             : INVALID_SOCKET);
        listener.Reset();
        if (!theirs.IsValid()) {
            m_error = "no loopback connection for the server's standard input";
            return;
        }
        ::SetHandleInformation(reinterpret_cast<HANDLE>(theirs.Get()), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);

        std::wstring commandLine = L"Z:" + detail::FromUtf8(python);
        for (auto& c : commandLine)
            if (c == L'/')
                c = L'\\';
        commandLine = TarnTest::QuoteArgument(commandLine);
        for (const std::string& arg :
             {std::string("-u"), std::string("-c"),
              std::string("import os,runpy,sys;os.set_blocking(0,True);os.set_blocking(1,True);"
                          "sys.argv=sys.argv[1:];runpy.run_path(sys.argv[0],run_name='__main__')"),
              script, unixRoot})
            commandLine += L" " + TarnTest::QuoteArgument(detail::FromUtf8(arg));

        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = reinterpret_cast<HANDLE>(theirs.Get());
        startup.hStdOutput = reinterpret_cast<HANDLE>(theirs.Get());
        startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
        PROCESS_INFORMATION info{};
        if (!::CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                              &info)) {
            m_error = "CreateProcess of " + python + " failed, error " + std::to_string(::GetLastError());
            return;
        }
        // A Unix child has no Windows process to wait on; the connection is its lifeline.
        // Wine may report such a child with process id 0 and handles it never filled in:
        // closing those would close whichever handle of ours has the same value.
        TarnBase::UniqueHandle process(info.dwProcessId != 0 ? info.hProcess : nullptr);
        TarnBase::UniqueHandle thread(info.dwProcessId != 0 ? info.hThread : nullptr);
        theirs.Reset();

        std::string line;
        char c = 0;
        while (line.size() < 64 && detail::Sockets().recv(ours.Get(), &c, 1, 0) == 1 && c != '\n')
            line += c;
        if (line.compare(0, 5, "PORT ") != 0 || std::atoi(line.c_str() + 5) <= 0) {
            m_error = "the server did not report its port (got '" + line + "')";
            return;
        }
        m_port = static_cast<unsigned short>(std::atoi(line.c_str() + 5));
        m_lifeline = std::move(ours);
    }

    // Closing our end of its standard input is what stops the server.
    ~TestServer() = default;
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    bool Running() const { return m_port != 0; }
    const std::string& Error() const { return m_error; }
    unsigned short Port() const { return m_port; }

    // "http://127.0.0.1:<port>" followed by `pathAndQuery` (which starts with '/').
    std::string Url(const std::string& pathAndQuery) const
    {
        return "http://127.0.0.1:" + std::to_string(m_port) + pathAndQuery;
    }

    // How often the server was asked for `path` (as sent, without the query); -1 when the
    // server could not be asked.
    long RequestCount(const std::string& path) const
    {
        std::string body;
        if (!Get("/__count?path=" + Escape(path), body))
            return -1;
        char* end = nullptr;
        const long count = std::strtol(body.c_str(), &end, 10);
        return end != body.c_str() ? count : -1;
    }

    bool ResetCounts() const
    {
        std::string body;
        return Get("/__reset", body);
    }

private:
    static constexpr DWORD kStartTimeoutMs = 20000;

    static std::string EnvOr(const char* name, const char* fallback)
    {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0' ? value : fallback;
    }

    static std::string SourceDir()
    {
#ifdef TARN_SOURCE_DIR_DEFAULT
        return EnvOr("TARN_SOURCE_DIR", TARN_SOURCE_DIR_DEFAULT);
#else
        return EnvOr("TARN_SOURCE_DIR", ".");
#endif
    }

    static std::string Escape(const std::string& text)
    {
        static const char hex[] = "0123456789ABCDEF";
        std::string escaped;
        for (unsigned char c : text) {
            if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '/' || c == '.' ||
                c == '-' || c == '_') {
                escaped += static_cast<char>(c);
            } else {
                escaped += '%';
                escaped += hex[c >> 4];
                escaped += hex[c & 15];
            }
        }
        return escaped;
    }

    // A plain HTTP/1.0 GET on its own connection; the server closes after each answer.
    bool Get(const std::string& pathAndQuery, std::string& body) const
    {
        body.clear();
        if (!Running())
            return false;
        detail::Socket s = detail::ConnectLoopback(m_port, 10000);
        if (!s.IsValid())
            return false;
        const std::string request = "GET " + pathAndQuery + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
        if (detail::Sockets().send(s.Get(), request.data(), static_cast<int>(request.size()), 0) !=
            static_cast<int>(request.size()))
            return false;
        std::string response;
        char buffer[1024];
        int n = 0;
        while ((n = detail::Sockets().recv(s.Get(), buffer, sizeof buffer, 0)) > 0)
            response.append(buffer, static_cast<size_t>(n));
        const size_t split = response.find("\r\n\r\n");
        if (response.compare(0, 12, "HTTP/1.1 200") != 0 && response.compare(0, 12, "HTTP/1.0 200") != 0)
            return false;
        if (split == std::string::npos)
            return false;
        body = response.substr(split + 4);
        return true;
    }

    detail::Socket m_lifeline;
    unsigned short m_port = 0;
    std::string m_error;
};

} // namespace TarnTest
