#pragma once
// The trust data file a page publishes: which name the control uses, where that name lives
// relative to the page, and fetching it over WinINet into a file that the caller owns.

#include <windows.h>
#include <wininet.h>

#include <string>

namespace TarnSMX {

class CTarnSM;

// The data file name for the control's page: its own property (published for the page
// unless another control got there first), else what another control on the page
// published, else "trust.dll", which then becomes the control's property.
std::wstring GetTrustDataFileURL(CTarnSM& control, const std::string& pageUrl);

// The absolute URL of the data file, resolved against the page URL; empty on failure.
std::string GetTrustedSiteDownloadURL(CTarnSM& control, const std::string& pageUrl);

// Fetches the URL into targetPath (created or truncated). True only for a 200 answer whose
// body was read until the platform reported its end; a connection the server cuts short
// is reported that way too, so a partial file can come back as true and only its
// signature check rejects it. The target file is left behind on failure for the caller
// to delete.
bool DownloadFile(const std::string& downloadUrl, const std::string& targetPath);

// The HTTP status of a request handle; false (status 999) when it cannot be read.
bool GetHttpStatusCode(DWORD& status, HINTERNET request);

} // namespace TarnSMX
