#include "LineOutput.h"

namespace TarnLogTool {

std::string PrintableLine(const std::string& text)
{
    static const char hex[] = "0123456789abcdef";
    std::string line;
    line.reserve(text.size());
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u >= 0x20 && u != 0x7f) {
            line += c;
        } else if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else {
            line += "\\x";
            line += hex[u >> 4];
            line += hex[u & 15];
        }
    }
    return line;
}

void WriteLine(std::FILE* out, const std::string& text)
{
    const std::string line = PrintableLine(text);
    std::fwrite(line.data(), 1, line.size(), out);
    std::fputc('\n', out);
}

} // namespace TarnLogTool
