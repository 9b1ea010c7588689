// The manners of a modem that does everything wrong that real ones do, each with a rate of its own. Its answers carry
// the number of the input that they answer; its refusals come by chance.
#pragma once

#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "scripted_modem.h"

using Rates = std::map<std::string, int>; // trouble, per mille of the commands

struct Given {
    std::vector<std::string> lines;
    std::string final = "OK";
    bool answered = false; // has lines and a result of its own
    bool twice = false, claimed = false;
};

class Adversary {
public:
    explicit Adversary(unsigned seed) : random_(seed) {}

    void arm(const Rates &rates)
    {
        std::lock_guard lock(mutex);
        rates_ = rates;
    }
    Course operator()(const std::string &text, size_t number);

    std::mutex mutex; // guards all
    std::map<size_t, Given> given;
    std::vector<size_t> strays; // with these inputs a final result came that nobody asked for
    int repeats = 0;

private:
    bool strikes(const char *trouble)
    {
        auto found = rates_.find(trouble);
        return found != rates_.end() && static_cast<int>(random_() % 1000) < found->second;
    }
    int between(int low, int high)
    {
        return low + static_cast<int>(random_() % static_cast<unsigned>(high - low + 1));
    }
    template<size_t N> std::string one_of(const char *const (&texts)[N])
    {
        return framed({}, texts[random_() % N]);
    }
    Given answer_to(const std::string &command, size_t number);
    std::string spoil(const std::string &command, std::string text);
    std::vector<Piece> pace(const std::string &text);
    void add_strays(Course &course, Given &own, size_t number);
    void strike_fate(Course &course, Given &own);

    std::mt19937 random_;
    Rates rates_;
};

// Does the line carry the name of a command that asked for it? Reports and final results do not.
bool carries_a_name(const std::string &line);

std::string from_environment(const char *name, const char *otherwise);
std::vector<int> numbers_in(const std::string &text); // with commas between them
