#include "report.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <mntent.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <thread>

using nlohmann::json;

static std::string processor_name()
{
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        size_t colon = line.find(": ");
        if (line.starts_with("model name") && colon != std::string::npos)
            return line.substr(colon + 2);
    }
    return "unknown processor";
}

static std::string file_system_of(const std::string &folder)
{
    struct stat own;
    std::string type = "unknown";
    FILE *mounts = setmntent("/proc/self/mounts", "r");
    if (mounts == nullptr || stat(folder.c_str(), &own) != 0)
        return type;
    while (mntent *entry = getmntent(mounts)) {
        struct stat theirs;
        if (stat(entry->mnt_dir, &theirs) == 0 && theirs.st_dev == own.st_dev)
            type = entry->mnt_type;
    }
    (void)endmntent(mounts);
    return type;
}

json describe_machine(const std::string &folder)
{
    utsname system = {};
    struct sysinfo memory = {};
    (void)uname(&system);
    (void)sysinfo(&memory);
    double load[1] = {0};
    (void)getloadavg(load, 1);
    char date[32];
    time_t now = time(nullptr);
    (void)strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", gmtime(&now));
    constexpr double bytes_per_gib = 1 << 30;
    return {
        {"processor", fmt::format("{}, {} cores", processor_name(), std::thread::hardware_concurrency())},
        {"memory", fmt::format("{:.0f} GiB", static_cast<double>(memory.totalram) * memory.mem_unit / bytes_per_gib)},
        {"system", fmt::format("{} {} {}", system.sysname, system.release, system.machine)},
        {"compiler", fmt::format("GCC {}, {}", __VERSION__, BUILD_TYPE)},
        {"file system", file_system_of(folder)},
        {"load at start", fmt::format("{:.2f}", load[0])},
        {"measured", date},
    };
}

static std::string cell(const json &row, const Column &column)
{
    auto member = row.find(column.key);
    if (member == row.end() || member->is_null())
        return "";
    if (member->is_number())
        return fmt::format("{:.{}f}", member->get<double>(), column.digits);
    return member->get<std::string>();
}

// All lines of a table, the headings first.
static std::vector<std::vector<std::string>> cells_of(const Table &table)
{
    std::vector<std::vector<std::string>> lines(1);
    for (const Column &column : table.columns)
        lines[0].push_back(column.heading);
    for (const json &row : table.rows) {
        std::vector<std::string> &line = lines.emplace_back();
        for (const Column &column : table.columns)
            line.push_back(cell(row, column));
    }
    return lines;
}

static bool is_numeric(const Table &table, const Column &column)
{
    return std::none_of(table.rows.begin(), table.rows.end(), [&](const json &row) {
        auto member = row.find(column.key);
        return member != row.end() && member->is_string();
    });
}

// Of a text in UTF-8.
static size_t width_of(const std::string &text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (static_cast<uint8_t>(byte) & 0xC0) != 0x80; }));
}

std::string as_text(const Table &table)
{
    std::vector<std::vector<std::string>> lines = cells_of(table);
    std::string text = fmt::format("\n({}) {}\n", table.number, table.title);
    for (const auto &line : lines) {
        std::string out;
        for (size_t i = 0; i < line.size(); i++) {
            size_t width = 0;
            for (const auto &other : lines)
                width = std::max(width, width_of(other[i]));
            std::string space(width - width_of(line[i]), ' ');
            out += (is_numeric(table, table.columns[i]) ? space + line[i] : line[i] + space) + "  ";
        }
        text += out.substr(0, out.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

static Table goal_table(const std::vector<Goal> &goals)
{
    Table table = {
        0, "goals", {{"number", "", 0}, {"what", "what"}, {"value", "figure", 2}, {"limit", "goal"}, {"met", ""}}, {}};
    for (const Goal &goal : goals) {
        table.rows.push_back(
            {{"number", fmt::format("({})", goal.number)},
             {"what", goal.what},
             {"value", goal.value},
             {"limit", fmt::format("{} {:.2f} {}", goal.bound == Bound::at_most ? "≤" : "≥", goal.limit, goal.unit)},
             {"met", goal.met() ? "met" : "MISSED"}});
    }
    return table;
}

std::string as_text(const std::vector<Goal> &goals)
{
    std::string text = as_text(goal_table(goals));
    return "\n" + text.substr(text.find("goals"));
}

json to_json(const Report &report)
{
    json tables = json::array();
    for (const Table &table : report.tables) {
        json columns = json::array();
        for (const Column &column : table.columns)
            columns.push_back({{"key", column.key}, {"heading", column.heading}, {"digits", column.digits}});
        tables.push_back(
            {{"number", table.number}, {"title", table.title}, {"columns", columns}, {"rows", table.rows}});
    }
    json goals = json::array();
    for (const Goal &goal : report.goals) {
        goals.push_back({{"number", goal.number},
                         {"what", goal.what},
                         {"value", goal.value},
                         {"bound", goal.bound == Bound::at_most ? "at most" : "at least"},
                         {"limit", goal.limit},
                         {"unit", goal.unit},
                         {"met", goal.met()}});
    }
    return {{"machine", report.machine}, {"quick", report.quick}, {"tables", tables}, {"goals", goals}};
}

Report report_from_json(const json &results)
try {
    Report report;
    report.machine = results.at("machine");
    report.quick = results.at("quick").get<bool>();
    for (const auto &table : results.at("tables")) {
        std::vector<Column> columns;
        for (const auto &column : table.at("columns"))
            columns.push_back({column.at("key"), column.at("heading"), column.at("digits")});
        report.tables.push_back({table.at("number"), table.at("title"), columns, table.at("rows")});
    }
    for (const auto &goal : results.at("goals")) {
        Bound bound = goal.at("bound") == "at most" ? Bound::at_most : Bound::at_least;
        report.goals.push_back(
            {goal.at("number"), goal.at("what"), goal.at("value"), bound, goal.at("limit"), goal.at("unit")});
    }
    return report;
} catch (const nlohmann::json::exception &error) {
    throw std::runtime_error(fmt::format("no results of a run: {}", error.what()));
}

static std::string as_markdown(const Table &table, bool with_title)
{
    std::vector<std::vector<std::string>> lines = cells_of(table);
    std::string text = with_title ? fmt::format("{}:\n\n", table.title) : "";
    for (size_t i = 0; i < lines.size(); i++) {
        text += "|";
        for (const std::string &value : lines[i])
            text += fmt::format(" {} |", value);
        text += "\n";
        if (i > 0)
            continue;
        text += "|";
        for (const Column &column : table.columns)
            text += is_numeric(table, column) ? "---:|" : "---|";
        text += "\n";
    }
    return text;
}

static std::string figures(const std::string &name, const Report &report)
{
    std::string text;
    if (name == "machine") {
        text = "| | |\n|---|---|\n";
        for (const auto &[key, value] : report.machine.items())
            text += fmt::format("| {} | {} |\n", key, value.get<std::string>());
        return text;
    }
    if (name == "goals")
        return as_markdown(goal_table(report.goals), false);
    for (const Table &table : report.tables) {
        if (std::to_string(table.number) == name)
            text += (text.empty() ? "" : "\n") + as_markdown(table, true);
    }
    if (text.empty())
        throw std::runtime_error("the results lack the figures " + name);
    return text;
}

std::string with_figures(const std::string &page, const Report &report)
{
    const std::string begin = "<!-- figures ", begin_end = " -->\n", end = "<!-- end -->";
    std::string result;
    size_t at = 0;
    for (size_t mark; (mark = page.find(begin, at)) != std::string::npos;) {
        size_t name = mark + begin.size();
        size_t inside = page.find(begin_end, name);
        size_t stop = inside == std::string::npos ? inside : page.find(end, inside);
        if (stop == std::string::npos)
            throw std::runtime_error("a mark without its end in the page");
        result += page.substr(at, inside + begin_end.size() - at) + "\n" +
                  figures(page.substr(name, inside - name), report) + "\n";
        at = stop;
    }
    return result + page.substr(at);
}
