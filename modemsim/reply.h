#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace modemsim {

enum class ReplyKind {
    plain,
    prompt, ///< the text prompt goes out; the answer follows the message text
    scan,   ///< the answer follows `delay_ms` later and other commands are refused meanwhile
};

/// What one command answers, before it is framed.
struct Reply {
    std::vector<std::string> lines;
    std::string final = "OK";
    int64_t delay_ms = 0; ///< how much longer than usual the command takes
    ReplyKind kind = ReplyKind::plain;
    std::vector<uint64_t> messages; ///< ids of the short messages that the lines hold
};

Reply reply_ok();
Reply reply_line(std::string line);
Reply reply_error();
/// `+CME ERROR` (3GPP TS 27.007 9.2) in the form that AT+CMEE chose: 0 "ERROR", 1 number, 2 text.
Reply reply_cme(int cmee, int code);
/// `+CMS ERROR` (3GPP TS 27.005 3.2.5); a number unless AT+CMEE chose text.
Reply reply_cms(int cmee, int code);

/// The lines of one command between line ends; empty without lines.
std::string frame_lines(const std::vector<std::string> &lines);
/// A final result or an unsolicited line between line ends.
std::string frame_line(std::string_view line);

} // namespace modemsim
