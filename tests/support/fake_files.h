// Another body for src/file_ops.cpp: files in memory, with a count of the operations that change something, of which a
// test lets the n-th fail or cuts the power at it. Any thread, but a test sets things up on its own.
#pragma once

#include <map>
#include <string>
#include <vector>

struct FakeFiles {
    using Disk = std::map<std::string, std::string>;

    void reset();
    void put(const std::string &path, const std::string &content); // complete and synced
    bool has(const std::string &path) const;
    std::string content(const std::string &path) const;

    // What a reader may find: everything that was done (a killed process), and what a power cut can leave of it.
    std::vector<Disk> after_cut() const;
    void restore(const Disk &disk);

    int calls = 0;          // operations so far that change something
    int fail_at = 0;        // the one that fails; 0 for none. A failing write writes the first half.
    bool cut = false;       // all behind it fail, too
    int open_error = 0;     // errno of every open for reading
    bool no_folder = false; // it has to be made before a file can be created
    int read_limit = -1;    // reads fail behind this many bytes of a file
};

extern FakeFiles fake_files;
