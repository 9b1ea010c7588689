// A folder of the test's own, which goes with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class TemporaryFolder {
public:
    TemporaryFolder()
    {
        char pattern[] = "/tmp/celmux_test.XXXXXX";
        path = mkdtemp(pattern);
    }
    ~TemporaryFolder()
    {
        std::filesystem::remove_all(path);
    }
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    std::string operator/(const std::string &name) const
    {
        return path + "/" + name;
    }
    void write(const std::string &name, const std::string &text) const
    {
        std::ofstream(path + "/" + name, std::ios::binary) << text;
    }
    std::string content(const std::string &name) const
    {
        std::ostringstream text;
        text << std::ifstream(path + "/" + name, std::ios::binary).rdbuf();
        return text.str();
    }

    std::string path;
};
