#include "reply.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace modemsim {

namespace {

struct ErrorText {
    int code;
    std::string_view text;
};

constexpr ErrorText cme_texts[] = {
    {3, "operation not allowed"},
    {4, "operation not supported"},
    {10, "SIM not inserted"},
    {11, "SIM PIN required"},
    {12, "SIM PUK required"},
    {13, "SIM failure"},
    {14, "SIM busy"},
    {16, "incorrect password"},
    {20, "memory full"},
    {21, "invalid index"},
    {30, "no network service"},
    {50, "incorrect parameters"},
    {100, "unknown"},
};

constexpr ErrorText cms_texts[] = {
    {38, "network out of order"},
    {301, "SMS service of ME reserved"},
    {302, "operation not allowed"},
    {304, "invalid PDU mode parameter"},
    {305, "invalid text mode parameter"},
    {310, "SIM not inserted"},
    {311, "SIM PIN required"},
    {316, "SIM PUK required"},
    {321, "invalid memory index"},
    {322, "memory full"},
    {331, "no network service"},
    {340, "no +CNMA acknowledgement expected"},
    {500, "unknown error"},
};

template<size_t N> std::string error_line(std::string_view kind, const ErrorText (&texts)[N], bool as_text, int code)
{
    if (as_text)
        for (const ErrorText &row : texts)
            if (row.code == code)
                return fmt::format("{}: {}", kind, row.text);
    return fmt::format("{}: {}", kind, code);
}

} // namespace

Reply reply_ok()
{
    return {};
}

Reply reply_line(std::string line)
{
    Reply reply;
    reply.lines.push_back(std::move(line));
    return reply;
}

Reply reply_error()
{
    Reply reply;
    reply.final = "ERROR";
    return reply;
}

Reply reply_cme(int cmee, int code)
{
    Reply reply;
    reply.final = cmee == 0 ? "ERROR" : error_line("+CME ERROR", cme_texts, cmee == 2, code);
    return reply;
}

Reply reply_cms(int cmee, int code)
{
    Reply reply;
    reply.final = error_line("+CMS ERROR", cms_texts, cmee == 2, code);
    return reply;
}

std::string frame_lines(const std::vector<std::string> &lines)
{
    if (lines.empty())
        return {};
    return fmt::format("\r\n{}\r\n", fmt::join(lines, "\r\n"));
}

std::string frame_line(std::string_view line)
{
    return fmt::format("\r\n{}\r\n", line);
}

} // namespace modemsim
