#pragma once
// tarngrant's commands. Each takes the arguments after its name and returns the exit code.

#include <string>
#include <vector>

namespace TarnGrant {

int Grant(std::vector<std::wstring> args);
int Revoke(const std::vector<std::wstring>& args);
int List(const std::vector<std::wstring>& args);
int Encrypt(const std::vector<std::wstring>& args);

} // namespace TarnGrant
