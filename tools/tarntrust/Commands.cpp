// The three jobs of tarntrust; main.cpp only picks one from the command line.
#include "Commands.h"
#include "SiteFile.h"

#include "TarnSM/SiteList.h"
#include "tools/tarntrust/TrustDataModule.h"
#include "TarnSM/win/TrustDataFile.h"
#include "TarnSM/win/TrustedSigners.h"
#include "TarnBase/Exceptions.h"
#include "TarnBase/win/Handle.h"
#include "TarnUtils/win/Authenticode.h"
#include "TarnUtils/win/StringConvert.h"

#include <windows.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace TarnTrust {
namespace {

int Fail(const std::string& message, int code = 1)
{
    std::fprintf(stderr, "tarntrust: %s\n", message.c_str());
    return code;
}

std::string FullPath(const std::string& path)
{
    char full[MAX_PATH] = {};
    const DWORD n = ::GetFullPathNameA(path.c_str(), MAX_PATH, full, nullptr);
    return n > 0 && n < MAX_PATH ? std::string(full) : path;
}

// The control's own check; whatever it throws means the signature cannot be relied on.
bool SignatureVerifies(const std::wstring& path)
{
    try {
        return TarnUtils::Authenticode::VerifyAuthenticodeSignature(path);
    } catch (...) {
        return false;
    }
}

void PrintList(const char* title, const std::vector<std::string>& entries)
{
    std::printf("%s (%zu)\n", title, entries.size());
    for (const auto& e : entries)
        std::printf("  %s\n", e.c_str());
}

} // namespace

int Build(const std::string& sitePath, const std::string& outPath)
{
    std::ifstream in(sitePath, std::ios::binary);
    if (!in)
        return Fail("cannot read " + sitePath);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const SiteFile site = ParseSiteFile(text);
    for (const auto& w : site.warnings)
        std::fprintf(stderr, "%s:%d: warning: %s\n", sitePath.c_str(), w.line, w.text.c_str());
    for (const auto& e : site.errors)
        std::fprintf(stderr, "%s:%d: error: %s\n", sitePath.c_str(), e.line, e.text.c_str());
    if (!site.errors.empty())
        return Fail("no module written", 1);
    std::vector<uint8_t> image;
    try {
        image = BuildTrustDataModule(site.strings);
    } catch (const TarnBase::BaseException&) {
        return Fail("a list is too long for a trust data module; no module written");
    }
    std::ofstream out(outPath, std::ios::binary);
    out.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    if (!out)
        return Fail("cannot write " + outPath);
    std::printf("wrote %s (%zu bytes, unsigned: sign it before publishing)\n", outPath.c_str(), image.size());
    return 0;
}

int Show(const std::string& path)
{
    const std::string full = FullPath(path);
    TarnBase::UniqueModule module(::LoadLibraryExA(full.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    if (!module)
        return Fail(path + " is not a module the control can load (error " + std::to_string(::GetLastError()) + ")");
    struct Section {
        UINT id;
        const char* name;
    };
    for (const Section& section : {Section{101, "https pages"}, Section{102, "http and file pages"}}) {
        std::string raw;
        std::vector<std::string> trusted, denied;
        if (!TarnSMX::LoadResourceString(module.Get(), section.id, raw)) {
            std::printf("[%s] string %u missing: such pages are never trusted\n", section.name, section.id);
            continue;
        }
        TarnSMX::ParseSiteInfo(raw, trusted, denied);
        std::printf("[%s] string %u\n", section.name, section.id);
        PrintList(" trusted", trusted);
        PrintList(" denied", denied);
    }
    std::vector<std::string> signers;
    TarnSMX::LoadTrustedSigners(module.Get(), 103, "\n", signers);
    PrintList("[site signers] string 103", signers);
    module.Reset();

    const std::wstring wide = TarnUtils::AnsiToWide(full);
    const std::string signer = TarnUtils::Authenticode::ReadSignerCommonName(wide);
    const bool valid = SignatureVerifies(wide);
    std::printf("signer: %s\n", signer.empty() ? "(none)" : signer.c_str());
    std::printf("signature: %s\n", valid ? "valid" : "NOT valid");
    return 0;
}

int Check(const std::string& path, const std::string& domain, const std::string& scheme)
{
    const std::string full = FullPath(path);
    const uint32_t code = TarnSMX::SchemeCode(scheme);
    std::vector<std::string> signers, trusted, denied;
    if (!TarnSMX::ReadTrustDataDLL(code, full, signers, trusted, denied))
        return Fail("the control cannot read a list for " + scheme + " pages from " + path + ": not trusted", 1);
    const bool valid = SignatureVerifies(TarnUtils::AnsiToWide(full));
    if (!valid)
        std::printf("note: the signature does not verify here; the control would refuse this file\n");
    for (const auto& entry : denied)
        if (!entry.empty() && TarnSMX::MatchSite(entry, domain)) {
            std::printf("%s: NOT trusted (denied by entry -%s)\n", domain.c_str(), entry.c_str());
            return 1;
        }
    for (const auto& entry : trusted)
        if (!entry.empty() && TarnSMX::MatchSite(entry, domain)) {
            std::printf("%s: trusted (entry +%s)\n", domain.c_str(), entry.c_str());
            return valid ? 0 : 1;
        }
    std::printf("%s: NOT trusted (no entry of the %s list matches)\n", domain.c_str(), scheme.c_str());
    return 1;
}

} // namespace TarnTrust
