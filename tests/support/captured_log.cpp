#include "captured_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "log.h"

static std::mutex log_mutex; // guards log_lines
static std::vector<LogLine> log_lines;

static std::string format_text(const char *format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int length = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(static_cast<size_t>(length), '\0');
    vsnprintf(text.data(), text.size() + 1, format, arguments);
#pragma GCC diagnostic pop
    return text;
}

void ril_log(int level, const char *format, const char *function, int line, ...)
{
    va_list arguments;
    std::string prefix = "[CELMUX: " + std::string(function) + ":" + std::to_string(line) + "] ";
    const std::string marker = "[CELMUX: %s:%d] ";
    va_start(arguments, line);
    std::string text = prefix + format_text(format + marker.size(), arguments);
    va_end(arguments);
    std::lock_guard guard(log_mutex);
    log_lines.push_back({level, std::move(text)});
}

void print_out(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = format_text(format, arguments);
    va_end(arguments);
    std::lock_guard guard(log_mutex);
    log_lines.push_back({-1, std::move(text)});
}

std::vector<LogLine> logged()
{
    std::lock_guard guard(log_mutex);
    return log_lines;
}

void clear_log()
{
    std::lock_guard guard(log_mutex);
    log_lines.clear();
}

int log_count(const std::string &text, int level)
{
    int count = 0;
    for (const LogLine &line : logged())
        count += (level == -2 || line.level == level) && line.text.find(text) != std::string::npos;
    return count;
}
