// A link without the getting-in-step, to show what it prevents (see tests/CMakeLists.txt).

#include "link_step.h"

LinkStatistics link_statistics;

uint32_t link_command_queued(const char *, bool)
{
    link_statistics.commands.fetch_add(1);
    return 0;
}

void link_strip_repeated(char *)
{
}

void link_answers_arrived(unsigned)
{
}

void link_answers_passed_on()
{
}

void link_out_of_step(LinkFault)
{
}

bool link_get_in_step(int64_t)
{
    return true;
}

void log_link_statistics()
{
}
