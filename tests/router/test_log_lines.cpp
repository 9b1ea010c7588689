// The lines that docs/troubleshooting.md explains are lines that the daemon writes, to the log that the page names.

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>

namespace {

std::string content_of(const std::filesystem::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A format of printf as a regular expression for what it makes; empty where it says nothing of its own.
std::string pattern_of(std::string format)
{
    format = std::regex_replace(format, std::regex(R"((\\n)+$)"), "");
    format = std::regex_replace(format, std::regex(R"re(\\")re"), "\"");
    if (std::regex_replace(format, std::regex("%s"), "").empty())
        return "";
    format = std::regex_replace(format, std::regex(R"([.*+?()\[\]{}|^$\\])"), R"(\$&)");
    return std::regex_replace(format, std::regex(R"(%(?:\\\.\\\*)?z?[a-z])"), ".+");
}

// By log: regular expressions of the lines that go there.
std::map<std::string, std::vector<std::regex>> formats_of_sources()
{
    std::string text;
    for (const auto &entry : std::filesystem::directory_iterator(SOURCE_DIR "/src")) {
        if (entry.path().extension() == ".cpp")
            text += content_of(entry.path());
    }
    std::map<std::string, std::string> constants;
    const std::regex constant(R"re(constexpr const char \*(\w+) = "((?:[^"\\]|\\.)*)")re");
    for (std::sregex_iterator match(text.begin(), text.end(), constant), end; match != end; ++match)
        constants[(*match)[1]] = (*match)[2];

    const std::map<std::string, std::string> logs = {
        {"log_error", "system log"},
        {"CELMUX_LOG(LOG_ERR,", "system log"},
        {"log_debug", "system log, debug"},
        {"CELMUX_LOG(LOG_DEBUG,", "system log, debug"},
        {"log_info", "output"},
        {"CELMUX_LOG(LOG_INFO,", "output"},
        {"print_out", "output *"},
    };
    std::map<std::string, std::vector<std::regex>> formats;
    const std::regex call(
        R"re((log_error|log_info|log_debug|print_out|CELMUX_LOG\(LOG_\w+,)[\s(]*(?:"((?:[^"\\]|\\.)*)"|([A-Z_]+)\b))re");
    for (std::sregex_iterator match(text.begin(), text.end(), call), end; match != end; ++match) {
        std::string pattern = pattern_of((*match)[3].matched ? constants[(*match)[3]] : (*match)[2].str());
        if (!pattern.empty())
            formats[logs.at((*match)[1])].emplace_back(pattern);
    }
    // The log's own notes, written past its functions.
    formats["output *"].emplace_back(R"(\(\d+ lines dropped\))");
    formats["system log *"].emplace_back(R"(\(\d+ messages dropped\))");
    return formats;
}

TEST(Troubleshooting, ExplainsLinesThatTheDaemonWrites)
{
    auto formats = formats_of_sources();
    std::istringstream page(content_of(SOURCE_DIR "/docs/troubleshooting.md"));
    const std::regex row(R"(\| `(.+)` (\* )?\| ([a-z, ]+) \|.*)");
    int rows = 0;
    std::string line;
    while (std::getline(page, line)) {
        std::smatch cells;
        if (!line.starts_with("| `"))
            continue;
        ASSERT_TRUE(std::regex_match(line, cells, row)) << line;
        rows++;
        const std::string shown = cells[1];
        const std::string log = cells[3].str() + (cells[2].matched ? " *" : "");
        bool written = false;
        for (const std::regex &format : formats[log])
            written = written || std::regex_match(shown, format);
        EXPECT_TRUE(written) << log << ": " << shown;
    }
    EXPECT_GT(rows, 40);
}

} // namespace
