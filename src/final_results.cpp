#include "final_results.h"

#include <atomic>

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

const char *matching_result(std::string_view line)
{
    const ExpectedResults *expected = shared_results.load();
    for (uint32_t i = 0; expected && i < expected->count; i++) {
        const char *entry = expected->entries[i];
        if (entry && line.starts_with(entry))
            return entry;
    }
    return nullptr;
}
