#include "fake_modem_link.h"

#include <cstdlib>
#include <cstring>

#include "request.h"

FakeLink fake_link;

void FakeLink::reset()
{
    *this = FakeLink();
}

void FakeLink::answer_in_turn(std::vector<Answer> answers)
{
    answer = [answers = std::move(answers), turn = size_t{0}](const std::string &) mutable {
        const Answer &now = answers[turn];
        if (turn + 1 < answers.size())
            turn++;
        return now;
    };
}

void FakeLink::answer_always(Answer text)
{
    answer = [text = std::move(text)](const std::string &) { return text; };
}

std::string ok_answer(std::initializer_list<std::string> lines)
{
    std::string text = "\r\n";
    for (const std::string &line : lines)
        text += line + "\r\n";
    return text + "\r\nOK\r\n";
}

int request(const char *command, char **answer, const char *expected, int append_cr, uint32_t timeout_ms)
{
    if (fake_link.mutex_error)
        return fake_link.mutex_error;
    fake_link.sent.push_back(std::string(command) + (append_cr ? "\r" : ""));
    fake_link.expected.push_back(expected ? expected : "");
    fake_link.timeouts.push_back(timeout_ms);
    FakeLink::Answer text = fake_link.answer ? fake_link.answer(fake_link.sent.back()) : ok_answer({});
    if (fake_link.stopping)
        return 0;
    if (!text)
        return -1;
    *answer = strdup(text->c_str());
    return 0;
}

int at_enqueue(const char *command, int append_cr)
{
    if (!fake_link.enqueue_result)
        fake_link.sent.push_back(std::string(command) + (append_cr ? "\r" : ""));
    return fake_link.enqueue_result;
}

int exec_retry(const char *command, char **answer, int append_cr, int tries)
{
    for (int i = 0; i < tries; i++) {
        *answer = nullptr;
        if (request(command, answer, nullptr, append_cr, 3000) == 0 && *answer) {
            if (strstr(*answer, "OK"))
                return 0;
            free(*answer);
            *answer = nullptr;
        }
    }
    return -1;
}

int send_message_request(const char *pdu, int length, uint32_t timeout_ms)
{
    fake_link.sent.push_back("AT+CMGS=" + std::to_string(length) + "\r");
    fake_link.sent.push_back(pdu);
    fake_link.timeouts.push_back(timeout_ms);
    FakeLink::Answer text = fake_link.answer ? fake_link.answer(fake_link.sent.back()) : ok_answer({});
    return text && text->find("OK") != std::string::npos ? 0 : -1;
}
