#pragma once
// Files of known bytes for the download tests, in a scratch folder the fixture's web server
// serves (it serves the whole build tree, the Wine prefix included).

#include "Scratch.h"
#include "TestServer.h"

#include <memory>
#include <string>

namespace DownloadTest {

// Every byte value, in an order that no off-by-one copy reproduces by accident.
inline std::string PatternBytes(size_t size, unsigned state)
{
    std::string bytes(size, '\0');
    for (auto& b : bytes)
        b = static_cast<char>(((state = state * 1103515245u + 12345u) >> 16) & 0xFF);
    return bytes;
}

const std::string kTrustDll = PatternBytes(5000, 1);
const std::string kThreeBuffers = PatternBytes(3 * 1024, 2);

struct Web {
    static Web& Instance()
    {
        static Web web;
        return web;
    }
    std::string Url(const std::string& path) const { return server->Url(path); }
    long Count(const std::string& path) const { return server->RequestCount(path); }
    bool Running() const { return server && server->Running(); }

    TarnTest::TempDir root{L"www"};
    std::unique_ptr<TarnTest::TestServer> server;

private:
    Web()
    {
        if (root.Put(L"dir\\trust.dll", kTrustDll) && root.Put(L"dir\\three-buffers.bin", kThreeBuffers) &&
            root.Put(L"dir\\empty.bin", "") && root.Put(L"data\\sites.dll", PatternBytes(777, 3)))
            server.reset(new TarnTest::TestServer(TarnTest::UnixPathOf(root.Path())));
    }
};

} // namespace DownloadTest
