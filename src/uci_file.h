// A package's file as it changes: locked against every other writer, replaced whole or not at all. libuci parses and
// prints it; what it does with a file when the disk is full (it renames the torn one into place) or when two commit at
// once (one loses) is left out.
#pragma once

#include <cstddef>
#include <ctime>
#include <sys/types.h>

// The text of a file, on the heap.
struct UciText {
    char *data = nullptr;
    size_t size = 0;

    UciText() = default;
    ~UciText();
    UciText(const UciText &) = delete;
    UciText &operator=(const UciText &) = delete;
};

constexpr size_t UCI_PATH_SIZE = 512;

// A package under lock, from uci_file_open() to the end of its scope. Belongs to one thread; other threads and
// processes that want the package wait, for 5 s at most.
struct UciFile {
    char path[UCI_PATH_SIZE] = "";    // of the file itself, links followed
    char pending[UCI_PATH_SIZE] = ""; // of the changes that others have saved
    int fd = -1;
    UciText text;         // what the file holds
    UciText pending_text; // what is pending

    UciFile() = default;
    ~UciFile();
    UciFile(const UciFile &) = delete;
    UciFile &operator=(const UciFile &) = delete;
};

// Those that return int return 0 or an error number of libuci: 1 no memory, 2 a name is too long, 3 no such package, 4
// a file cannot be read, locked or written.

// Locks the package and reads it.
int uci_file_open(UciFile *file, const char *confdir, const char *savedir, const char *package);
// Puts `text`, which holds what was pending, in the file's place: it is on the disk and has been read back before the
// old file goes. Whoever waits for the old one finds the new text there. False in *current: somebody else came in
// between, nothing was done, and the package is to be opened again.
int uci_file_replace(UciFile *file, const char *text, size_t size, bool *current);

// Waits for up to 2 s, or until the daemon stops, until nobody has locked the package's files. libuci, which locks them
// to read, would wait without end. `package` may have a section behind it. False when somebody still has.
bool uci_wait_until_free(const char *confdir, const char *savedir, const char *package);

// What is pending now and when that last changed; false when nothing ever was.
bool uci_pending_read(const char *savedir, const char *package, UciText *text, time_t *changed);

// A folder with copies of both files, for libuci to read while the package is locked; gone at the end of its scope.
struct UciCopy {
    char config[UCI_PATH_SIZE] = "";
    char saved[UCI_PATH_SIZE + 8] = "";
    char package[64] = "";

    UciCopy() = default;
    ~UciCopy();
    UciCopy(const UciCopy &) = delete;
    UciCopy &operator=(const UciCopy &) = delete;
};
int uci_file_copy(const UciFile &file, const char *savedir, const char *package, UciCopy *copy);
