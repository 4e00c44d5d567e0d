#pragma once
// One local web server for the download tests of this program, serving a scratch
// directory of known files. Started on first use, stopped (and the files removed) when the
// program ends.

#include "DownloadTestSupport.h"
#include "TestServer.h"

#include <memory>
#include <string>

namespace DownloadTest {

// Every byte value, in an order that no off-by-one copy reproduces by accident.
inline std::string PatternBytes(size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    unsigned state = seed;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        bytes[i] = static_cast<char>((state >> 16) & 0xFF);
    }
    return bytes;
}

struct WebFiles {
    static const std::string& TrustDll()
    {
        static const std::string bytes = PatternBytes(5000, 1);
        return bytes;
    }
    static const std::string& ThreeBuffers()
    {
        static const std::string bytes = PatternBytes(3 * 1024, 2);
        return bytes;
    }
    static const std::string& SitesDll()
    {
        static const std::string bytes = PatternBytes(777, 3);
        return bytes;
    }
};

class Web {
public:
    static Web& Instance()
    {
        static Web web;
        return web;
    }

    bool Running() const { return m_server && m_server->Running(); }
    std::string Error() const { return m_server ? m_server->Error() : "web root not created"; }
    const TarnTest::TestServer& Server() const { return *m_server; }
    std::string Url(const std::string& pathAndQuery) const { return m_server->Url(pathAndQuery); }
    long Count(const std::string& path) const { return m_server->RequestCount(path); }

private:
    Web() : m_root(L"www")
    {
        const bool filesReady = m_root.Put(L"dir\\trust.dll", WebFiles::TrustDll()) &&
                                m_root.Put(L"dir\\three-buffers.bin", WebFiles::ThreeBuffers()) &&
                                m_root.Put(L"dir\\empty.bin", std::string()) &&
                                m_root.Put(L"dir\\page.html", "<html></html>") &&
                                m_root.Put(L"data\\sites.dll", WebFiles::SitesDll());
        const std::string unixRoot = TarnTest::UnixPathOf(m_root.Path());
        if (filesReady && !unixRoot.empty())
            m_server.reset(new TarnTest::TestServer(unixRoot));
    }

    TempDir m_root;
    std::unique_ptr<TarnTest::TestServer> m_server;
};

} // namespace DownloadTest
