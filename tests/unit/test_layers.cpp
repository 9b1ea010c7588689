// The units know each other in one direction only: docs/architecture.md has the layers of the daemon as a table, lowest
// first. A unit is a header and the source of its name.

#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace {

using Graph = std::map<std::string, std::set<std::string>>;

std::string text_of(const std::filesystem::path &path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Whom each unit of a folder includes.
Graph includes_in(const std::string &folder)
{
    static const std::regex include("#include \"([^\"]+)\"");
    Graph graph;
    for (const auto &entry : std::filesystem::directory_iterator(SOURCE_DIR "/" + folder)) {
        const std::filesystem::path path = entry.path();
        if (path.extension() != ".h" && path.extension() != ".cpp")
            continue;
        const std::string unit = path.stem(), text = text_of(path);
        for (std::sregex_iterator at(text.begin(), text.end(), include), end; at != end; ++at) {
            const std::string other = std::filesystem::path((*at)[1].str()).stem();
            if (other != unit)
                graph[unit].insert(other);
        }
        graph[unit];
    }
    return graph;
}

std::map<std::string, int> layers_in_document()
{
    static const std::regex row("\\n\\| (\\d+) \\|[^|]*\\|([^|]*)\\|"), name("`(\\w+)`");
    const std::string text = text_of(SOURCE_DIR "/docs/architecture.md");
    std::map<std::string, int> layers;
    for (std::sregex_iterator at(text.begin(), text.end(), row), end; at != end; ++at) {
        const std::string units = (*at)[2];
        for (std::sregex_iterator unit(units.begin(), units.end(), name); unit != end; ++unit)
            layers[(*unit)[1]] = std::stoi((*at)[1]);
    }
    return layers;
}

TEST(Layers, NoUnitKnowsOneThatKnowsIt)
{
    for (const char *folder :
         {"src", "cli", "modemsim", "platform/sms", "platform/ubox", "platform/ubus", "platform/uci"}) {
        const Graph graph = includes_in(folder);
        ASSERT_GT(graph.size(), 2u) << folder;
        std::set<std::string> done;
        std::vector<std::string> road;
        const std::function<void(const std::string &)> walk = [&](const std::string &unit) {
            ASSERT_EQ(std::count(road.begin(), road.end(), unit), 0)
                << folder << ": a circle from " << unit << " to " << road.back();
            if (!graph.contains(unit) || !done.insert(unit).second)
                return;
            road.push_back(unit);
            for (const std::string &other : graph.at(unit))
                walk(other);
            road.pop_back();
        };
        for (const auto &[unit, others] : graph)
            walk(unit);
    }
}

TEST(Layers, NoUnitOfTheDaemonKnowsAHigherLayer)
{
    const std::map<std::string, int> layers = layers_in_document();
    for (const auto &[unit, others] : includes_in("src")) {
        ASSERT_TRUE(layers.contains(unit)) << unit << " is in no layer of docs/architecture.md";
        for (const std::string &other : others) {
            if (layers.contains(other)) {
                EXPECT_LE(layers.at(other), layers.at(unit)) << unit << " includes " << other;
            }
        }
    }
}

} // namespace
