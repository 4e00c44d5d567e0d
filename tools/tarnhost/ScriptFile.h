#pragma once
// Loads a script file into the text the engine parses.

#include <string>

namespace TarnHost {

// UTF-16 LE and UTF-8 files are recognised by their byte order mark; a file without one is
// read as UTF-8 when it is valid UTF-8, else in the ANSI code page (as cscript would).
// Throws HostError (exit code 2) when the file cannot be read.
std::wstring ReadScriptFile(const std::wstring& path);

std::wstring DecodeScriptBytes(const std::string& bytes);

} // namespace TarnHost
