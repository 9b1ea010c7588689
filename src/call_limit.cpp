#include "call_limit.h"

#include "link.h"
#include "waiting.h"

static thread_local int64_t deadline = NO_CALL_LIMIT;

void limit_requests(int64_t deadline_ms)
{
    deadline = deadline_ms;
}

bool limit_to_call(uint32_t *timeout_ms)
{
    if (deadline == CALL_IS_OVER)
        return false;
    if (deadline == NO_CALL_LIMIT || !link_silent())
        return true;
    const int64_t left = deadline - monotonic_ms();
    if (left <= 0)
        return false;
    if (left < *timeout_ms)
        *timeout_ms = static_cast<uint32_t>(left);
    return true;
}
