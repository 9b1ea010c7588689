// Keeps commands and answers in step. An answer that comes after its time-out would be handed to the next command; so
// once one may still be on its way, a mark (a command whose answer cannot be mistaken) is sent and everything before
// the mark's answer is dropped.
#pragma once

#include <atomic>
#include <cstdint>

// Leaves the prompt of a message (3GPP TS 27.005 3.5.1); the line end ends what a modem without prompt took for a
// command.
constexpr char LINK_ESCAPE[] = "\x1b\r";

// A command that the modem will answer is being queued; returns its number, counted from 1 (it wraps). `awaited`: a
// request waits for the answer. The caller makes numbering and queueing one step.
uint32_t link_command_queued(const char *command, bool awaited);
// Takes answers that only repeat the last one out of a burst. Only the response processor.
void link_strip_repeated(char *text);
// A burst with so many final results has come and is about to be passed on; and has been. Only the response processor.
void link_answers_arrived(unsigned count);
void link_answers_passed_on();

enum class LinkFault {
    timeout,   // an answer did not come in time
    prompt,    // the prompt or the result of a message submission did not come
    restarted, // the port was opened anew, or the modem restarted: what it was doing is forgotten
};
// From here on an answer may come that nobody waits for. Any thread.
void link_out_of_step(LinkFault fault);

// Makes sure that the next answer is the next command's. Costs nothing while no answer is owed. False when that could
// not be had until `deadline_ms` (monotonic) or the daemon stops: no command may be sent then. The caller has the
// exchange to itself (request.cpp).
bool link_get_in_step(int64_t deadline_ms);

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
