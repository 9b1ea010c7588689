// Another body for src/wanmd.cpp: a test reads the notices that the connection manager would have got.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct FakeWanmd {
    std::vector<std::string> notices; // as the datagrams' texts; "control <n>" for wanmd_control
    std::function<void(const std::string &notice)> on_notice;

    void reset();
};

extern FakeWanmd fake_wanmd;
