// tarntrust: the publisher's tool for trust data files.
//   tarntrust build <site-file> <out.dll>       make the (unsigned) module from a site file
//   tarntrust show <data-file>                  what the control would read, and who signed it
//   tarntrust check <data-file> <domain> [scheme]   the control's answer, and the entry that decided
#include "Commands.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

int Usage()
{
    std::fprintf(stderr,
                 "usage: tarntrust build <site-file> <out.dll>\n"
                 "       tarntrust show <data-file>\n"
                 "       tarntrust check <data-file> <domain> [http|https|file]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    using namespace TarnTrust;
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 3 && args[0] == "build")
        return Build(args[1], args[2]);
    if (args.size() == 2 && args[0] == "show")
        return Show(args[1]);
    if ((args.size() == 3 || args.size() == 4) && args[0] == "check")
        return Check(args[1], args[2], args.size() == 4 ? args[3] : "https");
    return Usage();
}
