// The system loader must accept what the builder writes, and agree with the portable reader.
#include "tools/tarntrust/TrustDataModule.h"

#include <windows.h>

#include <doctest.h>

#include <fstream>
#include <string>

using namespace TarnSMX;

namespace {

using Strings = std::map<uint16_t, std::string>;

class TempModule {
public:
    explicit TempModule(const std::vector<uint8_t>& image)
    {
        static int counter = 0;
        char dir[MAX_PATH];
        GetTempPathA(MAX_PATH, dir);
        m_path = std::string(dir) + "tarn-tdm-" + std::to_string(GetCurrentProcessId()) + "-" +
                 std::to_string(++counter) + ".dll";
        std::ofstream out(m_path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    }
    ~TempModule()
    {
        if (m_module)
            FreeLibrary(m_module);
        DeleteFileA(m_path.c_str());
    }
    TempModule(const TempModule&) = delete;
    TempModule& operator=(const TempModule&) = delete;

    HMODULE Load()
    {
        m_module = LoadLibraryExA(m_path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
        return m_module;
    }

private:
    std::string m_path;
    HMODULE m_module = nullptr;
};

// The string in place, without a copy or a length limit, as a caller that reads whole lists does.
std::string LoadInPlace(HMODULE module, UINT id)
{
    const wchar_t* text = nullptr;
    const int length = LoadStringW(module, id, reinterpret_cast<LPWSTR>(&text), 0);
    std::string out;
    for (int i = 0; i < length; ++i)
        out += static_cast<char>(text[i]);
    return out;
}

} // namespace

TEST_CASE("a built trust data module loads as a data file and its strings load whole")
{
    std::string list;
    for (int i = 0; list.size() < 6000; ++i)
        list += "+site" + std::to_string(i) + ".example.com\n";
    list.resize(6000);
    const Strings strings = {{101, list},       {102, "+a.example\r\n-b.example"},
                             {103, "PlainSigner"}, {0, "zero"},
                             {4000, "far"},     {65535, "last"}};
    TempModule file(BuildTrustDataModule(strings));
    HMODULE module = file.Load();
    REQUIRE_MESSAGE(module != nullptr, "LoadLibraryExA failed with " << GetLastError());

    for (const auto& entry : strings)
        CHECK(LoadInPlace(module, entry.first) == entry.second);
    CHECK(LoadInPlace(module, 104).empty());
    CHECK(LoadInPlace(module, 1).empty());

    std::string buffer(8000, '\0');
    const int length = LoadStringA(module, 101, &buffer[0], static_cast<int>(buffer.size()));
    CHECK(length == 6000);
    CHECK(buffer.compare(0, 6000, list) == 0);
}

TEST_CASE("the loader and the portable reader agree on every id of a module's blocks")
{
    Strings strings;
    for (uint16_t id = 96; id < 128; id += 3)
        strings[id] = "id" + std::to_string(id);
    strings[200] = std::string(300, 'w');
    const std::vector<uint8_t> image = BuildTrustDataModule(strings);
    Strings read;
    std::string error;
    REQUIRE(ReadTrustDataStrings(image.data(), image.size(), read, error));

    TempModule file(image);
    HMODULE module = file.Load();
    REQUIRE(module != nullptr);
    for (UINT id = 90; id < 220; ++id) {
        auto it = read.find(static_cast<uint16_t>(id));
        INFO("id " << id);
        CHECK(LoadInPlace(module, id) == (it == read.end() ? std::string() : it->second));
    }
}

TEST_CASE("a module without strings still loads")
{
    TempModule file(BuildTrustDataModule({}));
    HMODULE module = file.Load();
    REQUIRE(module != nullptr);
    CHECK(LoadInPlace(module, 101).empty());
}
