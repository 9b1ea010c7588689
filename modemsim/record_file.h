#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace modemsim {

/// The transcript of what came in: one line for each command, "<ms> <number> <bytes>", control characters escaped as
/// \r, \n, \\ or \xNN, each line on disk before its answer goes out.
class RecordFile {
public:
    /// Appends to `path`; an empty path records nothing. Throws std::system_error when the file cannot be opened.
    explicit RecordFile(const std::string &path);
    ~RecordFile();
    RecordFile(const RecordFile &) = delete;
    RecordFile &operator=(const RecordFile &) = delete;

    void add(int64_t ms, uint64_t number, std::string_view bytes);

private:
    std::FILE *file_ = nullptr;
};

/// `bytes` with its control characters and everything beyond ASCII escaped.
std::string escaped(std::string_view bytes);
/// The bytes of a text with the escapes \r \n \t \\ \xNN; an escape that is none stays as it is.
std::string unescaped(std::string_view text);

} // namespace modemsim
