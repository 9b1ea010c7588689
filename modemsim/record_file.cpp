#include "record_file.h"

#include <cerrno>
#include <charconv>
#include <fmt/format.h>
#include <system_error>

namespace modemsim {

RecordFile::RecordFile(const std::string &path)
{
    if (path.empty())
        return;
    file_ = std::fopen(path.c_str(), "ae");
    if (file_ == nullptr)
        throw std::system_error(errno, std::generic_category(), path);
}

RecordFile::~RecordFile()
{
    if (file_ != nullptr)
        std::fclose(file_);
}

void RecordFile::add(int64_t ms, uint64_t number, std::string_view bytes)
{
    if (file_ == nullptr)
        return;
    fmt::print(file_, "{} {} {}\n", ms, number, escaped(bytes));
    std::fflush(file_);
}

std::string escaped(std::string_view bytes)
{
    std::string text;
    for (char c : bytes) {
        auto octet = static_cast<unsigned char>(c);
        if (c == '\r')
            text += "\\r";
        else if (c == '\n')
            text += "\\n";
        else if (c == '\\')
            text += "\\\\";
        else if (octet < 0x20 || octet > 0x7E)
            text += fmt::format("\\x{:02X}", octet);
        else
            text += c;
    }
    return text;
}

std::string unescaped(std::string_view text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); i++) {
        char next = i + 1 < text.size() ? text[i + 1] : '\0';
        unsigned value = 0;
        const char *digits = text.data() + i + 2;
        if (text[i] != '\\') {
            bytes += text[i];
        } else if (next == 'r' || next == 'n' || next == 't' || next == '\\') {
            bytes += next == 'r' ? '\r' : next == 'n' ? '\n' : next == 't' ? '\t' : '\\';
            i++;
        } else if (next == 'x' && i + 3 < text.size() &&
                   std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2) {
            bytes += static_cast<char>(value);
            i += 3;
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

} // namespace modemsim
