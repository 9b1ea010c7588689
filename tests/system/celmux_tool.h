// The tool `celmux` in a router's root, and what it printed as kept files. With CELMUX_KEEP_OUTPUT in the environment
// the kept files are written anew instead of being compared: look at the differences before keeping them.
#pragma once

#include <fstream>
#include <gtest/gtest.h>

#include "router.h"

// Words of one command line, quoted for the shell by the caller.
inline ShellResult celmux(Router &router, const std::string &arguments, std::chrono::milliseconds limit = patience)
{
    return router.root.shell("celmux " + arguments, limit);
}

// The command ends well, says nothing on standard error and prints what tests/data/cli/<kept> holds.
inline void expect_kept(Router &router, const std::string &arguments, const std::string &kept)
{
    std::string path = std::string(TEST_DATA_DIR) + "/cli/" + kept;
    ShellResult result = celmux(router, arguments);
    EXPECT_EQ(result.status, 0) << arguments;
    EXPECT_EQ(result.errors, "") << arguments;
    if (getenv("CELMUX_KEEP_OUTPUT"))
        std::ofstream(path, std::ios::binary) << result.output;
    EXPECT_EQ(result.output, read_whole_file(path)) << arguments << ", kept in " << kept;
}

// The command ends with this status, prints nothing, and says this one line.
inline void expect_failure(Router &router, const std::string &arguments, int status, const std::string &line)
{
    ShellResult result = celmux(router, arguments);
    EXPECT_EQ(result.status, status) << arguments;
    EXPECT_EQ(result.output, "") << arguments;
    EXPECT_EQ(result.errors, "celmux: " + line + "\n") << arguments;
}
