// Keeps a test prefix's Wine services warm for a bounded time, so each test program
// starts in a fraction of a second instead of seconds.
#include <windows.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    const unsigned long seconds = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 600;
    ::Sleep(seconds * 1000);
    return 0;
}
