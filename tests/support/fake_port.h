// Another body for src/files.cpp: the files that a test names are the only ones there are, and there is no port.
#pragma once

#include <map>
#include <string>

struct FakePort {
    std::map<std::string, std::string> contents; // by path
    std::map<std::string, std::string> links;    // symbolic links: path to target
    bool unreadable = false;                     // read_file fails

    void reset();
};

extern FakePort fake_port;
