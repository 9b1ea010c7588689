// Calls of the methods with what they ask the modem, written as a text: tests/data/method-exchanges.txt says how.
#pragma once

#include <algorithm>
#include <fstream>

#include "captured_reply.h"
#include "method_table.h"
#include "modem_test.h"

struct Exchange {
    std::string call; // method and arguments
    Strings sent;
    std::vector<Answer> answers;
    std::string reply;
};

// The answer of those lines, as the file describes it.
inline Answer answer_of(const Strings &lines)
{
    static constexpr std::string_view FINAL[] = {"ERROR", "+CME ERROR", "NO CARRIER"};
    if (lines == Strings{"-"})
        return std::nullopt;
    std::string text = lines.empty() ? "" : "\r\n";
    for (const std::string &line : lines)
        text += line == "~" ? "" : line + "\r\n";
    const std::string &last = lines.empty() ? "" : lines.back();
    const bool ended = last == "~" || std::ranges::any_of(FINAL, [&](auto final) { return last.starts_with(final); });
    return text + (ended ? "" : "\r\nOK\r\n");
}

// The pieces of a text, each of them but the first with its sign in front.
inline Exchange exchange_of(const std::string &text)
{
    Exchange exchange;
    Strings lines;
    auto end_answer = [&] {
        if (!exchange.sent.empty())
            exchange.answers.push_back(answer_of(lines));
        lines.clear();
    };
    for (size_t begin = 0, end; begin < text.size(); begin = end) {
        end = std::min(
            {text.find(" > ", begin + 2), text.find(" < ", begin + 2), text.find(" = ", begin + 2), text.size()});
        const std::string piece = text.substr(begin, end - begin), value = piece.size() > 3 ? piece.substr(3) : "";
        if (begin == 0)
            exchange.call = piece;
        else if (piece[1] == '<')
            lines.push_back(value);
        else
            end_answer();
        if (begin != 0 && piece[1] == '>')
            exchange.sent.push_back(value + "\r");
        else if (begin != 0 && piece[1] == '=')
            exchange.reply = value;
    }
    return exchange;
}

inline std::vector<Exchange> exchanges_of(const std::string &path)
{
    std::ifstream file(path);
    Strings texts;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("> ") || line.starts_with("< ") || line.starts_with("= "))
            texts.back() += " " + line;
        else if (!line.empty() && line[0] != '#')
            texts.push_back(line);
    }
    std::vector<Exchange> all;
    for (const std::string &text : texts)
        all.push_back(exchange_of(text));
    return all;
}

// Plays the exchanges of a file one after the other, of which there must be so many at least.
inline void play_exchanges(const std::string &path, size_t at_least)
{
    const auto all = exchanges_of(path);
    ASSERT_GE(all.size(), at_least);
    for (const Exchange &exchange : all) {
        SCOPED_TRACE(exchange.call + " = " + exchange.reply);
        const std::string name = exchange.call.substr(0, exchange.call.find(' '));
        const std::string arguments = exchange.call == name ? "{}" : exchange.call.substr(name.size());
        const auto method =
            std::ranges::find(method_rows, name, [](const MethodRow &row) { return std::string(row.name); });
        ASSERT_NE(method, method_rows.end());
        fake_link.reset();
        clear_log();
        if (!exchange.answers.empty())
            fake_link.answer_in_turn(exchange.answers);
        EXPECT_EQ(reply_of(method->handler, arguments.c_str()), exchange.reply);
        EXPECT_EQ(fake_link.sent, exchange.sent);
        for (size_t i = 0; i < fake_link.expected.size() && exchange.reply.starts_with(R"({"result":0)"); i++) {
            const std::string answer = *exchange.answers[i];
            EXPECT_TRUE(answer == "\r\nOK\r\n" || answer.find(fake_link.expected[i]) != answer.npos) << "not an answer";
        }
    }
}
