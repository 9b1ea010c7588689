// The result of a run: tables and goals, as text for the screen, as JSON, and as the figures in docs/performance.md.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct Column {
    std::string key; // of the rows' members
    std::string heading;
    int digits = 0; // behind the decimal point; members that are no numbers are printed as they are
};

struct Table {
    int number; // of the measurement
    std::string title;
    std::vector<Column> columns;
    std::vector<nlohmann::json> rows; // objects; a member that is missing or null is printed as nothing
};

enum class Bound { at_most, at_least };

struct Goal {
    int number; // of the measurement
    std::string what;
    double value;
    Bound bound;
    double limit;
    std::string unit;

    bool met() const
    {
        return bound == Bound::at_most ? value <= limit : value >= limit;
    }
};

struct Report {
    nlohmann::json machine = nlohmann::json::object(); // name: text
    bool quick = false;
    std::vector<Table> tables;
    std::vector<Goal> goals;
};

// This machine, by name; `folder` is where the messages lie.
nlohmann::json describe_machine(const std::string &folder);

std::string as_text(const Table &table);
std::string as_text(const std::vector<Goal> &goals);

nlohmann::json to_json(const Report &report);
// Throws std::runtime_error for what to_json() does not write.
Report report_from_json(const nlohmann::json &json);

// Replaces what stands between "<!-- figures NAME -->" and "<!-- end -->" in the page by the report's figures; NAME is
// `machine`, `goals` or a measurement's number. Throws std::runtime_error when the report lacks one of them.
std::string with_figures(const std::string &page, const Report &report);
