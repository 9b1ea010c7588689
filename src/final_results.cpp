#include "final_results.h"

#include <atomic>
#include <cstring>
#include <string_view>

#include "at_text.h"
#include "config.h"
#include "log.h"

static std::atomic<ExpectedResults *> shared_results{nullptr};

void load_results()
{
    ExpectedResults *expected = nullptr;
    if (load_expected_results(&expected) == 0)
        CELMUX_LOG(LOG_INFO, "load expected results ok", "resp_processor");
    shared_results.store(expected);
}

void free_results()
{
    free_expected_results(shared_results.exchange(nullptr));
}

const char *last_line(const char *text)
{
    const char *line = text;
    const char *end;
    while ((end = strchr(line, '\n')) && end[1] != '\0')
        line = end + 1;
    return line;
}

const char *matching_result(const char *line)
{
    const ExpectedResults *expected = shared_results.load();
    for (uint32_t i = 0; expected && i < expected->count; i++) {
        const char *entry = expected->entries[i];
        if (entry && strncmp(line, entry, strlen(entry)) == 0)
            return entry;
    }
    return nullptr;
}

bool ends_with_result(const char *text)
{
    const char *line = last_line(text);
    return strncmp(line, "> ", 2) == 0 || (strchr(line, '\n') && matching_result(line));
}

const char *behind_result(const char *text)
{
    std::string_view rest = text, line;
    while (next_line(&rest, &line)) {
        if (!matching_result(line.data()))
            continue;
        size_t end = rest.find('\n');
        return end == std::string_view::npos ? rest.data() + rest.size() : rest.data() + end + 1;
    }
    return nullptr;
}

unsigned results_in(const char *text)
{
    unsigned count = 0;
    std::string_view rest = text, line;
    while (next_line(&rest, &line))
        count += matching_result(line.data()) != nullptr;
    return count;
}

size_t length_to_last_result(const char *text)
{
    std::string_view rest = text, line;
    size_t length = 0;
    bool followed = false;
    while (next_line(&rest, &line)) {
        followed = !matching_result(line.data());
        if (!followed)
            length = static_cast<size_t>(line.data() + line.size() - text);
    }
    return followed ? length : 0;
}
