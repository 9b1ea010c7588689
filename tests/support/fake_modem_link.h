// Another body for the request API: a test says what the modem answers and reads what was sent. Linking this unit into
// a test replaces src/request.cpp.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

struct FakeLink {
    // What request returns besides 0: nullopt = -1 (time-out), otherwise the answer text.
    using Answer = std::optional<std::string>;

    std::vector<std::string> sent;                            // every command that was queued, in order, with its "\r"
    std::vector<std::string> expected;                        // the expected text of each request, "" for none
    std::vector<uint32_t> timeouts;                           // time-out of each request in ms
    std::function<Answer(const std::string &command)> answer; // default: "\r\nOK\r\n"
    int mutex_error = 0;                                      // when not 0, request returns it and sends nothing
    int enqueue_result = 0;                                   // what at_enqueue returns
    bool stopping = false; // request returns 0 without an answer, as it does when the daemon stops

    void reset();
    // Answers these in turn, then the last one for ever.
    void answer_in_turn(std::vector<Answer> answers);
    void answer_always(Answer text);
};

extern FakeLink fake_link;

// "\r\n<line>\r\n\r\nOK\r\n" for one or more lines, as modems frame their answers.
std::string ok_answer(std::initializer_list<std::string> lines);
