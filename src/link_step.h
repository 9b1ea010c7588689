// Keeps commands and answers in step. An answer that comes after its time-out would be handed to the next command; so once one may still be
// on its way, a mark (a command whose answer cannot be mistaken) is sent and everything before the mark's answer is dropped.
#pragma once

#include <atomic>
#include <cstdint>

// A command that the modem will answer is being queued; returns its number, counted from 1 (it wraps). `awaited`: a request waits for the
// answer. The caller makes numbering and queueing one step.
uint32_t link_command_queued(const char *command, bool awaited);
// Takes away from the front of a solicited burst what only repeats the last answer. Only the response processor.
void link_strip_repeated(char *text);
// A burst with so many final results has been passed on or dropped. Only the response processor.
void link_answers_arrived(unsigned count);
// Is an answer owed to a command that was queued after the one of that number? Any thread.
bool link_queued_since(uint32_t number);

enum class LinkFault {
    timeout,    // an answer did not come in time
    prompt,     // the prompt or the result of a message submission did not come
    restarted,  // the port was opened anew, or the modem restarted: what it was doing is forgotten
};
// From here on an answer may come that nobody waits for. Any thread.
void link_out_of_step(LinkFault fault);

// Makes sure that the next answer is the next command's. Costs nothing while no answer is owed. True, with the number of the last command
// that is answered; or false when that could not be had until `deadline_ms` (monotonic) or the daemon stops: no command may be sent then.
// The caller holds request_mutex.
bool link_get_in_step(int64_t deadline_ms, uint32_t *answered_to);

// Counts since the start; any thread.
struct LinkStatistics {
    std::atomic<uint32_t> commands;
    std::atomic<uint32_t> timeouts;
    std::atomic<uint32_t> late_answers; // dropped because nobody waited for them any more
    std::atomic<uint32_t> marks;
    std::atomic<uint32_t> gap_bursts; // bursts that ended by silence although a longer gap than 1 ms was granted
};
extern LinkStatistics link_statistics;
// One line with what happened since the last one, none when nothing did. Only the requester.
void log_link_statistics();
