#include "files.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"

char *read_file(const char *path, const char *mode)
{
    if (!file_exists(path)) {
        log_info("\"%s\" not exist.", path);
        return nullptr;
    }
    FILE *file = fopen(path, mode);
    if (!file) {
        log_error("open \"%s\" failed: %d, %s", path, errno, strerror(errno));
        return nullptr;
    }
    char *text = nullptr;
    long size = fseek(file, 0, SEEK_END) == 0 ? ftell(file) : -1;
    if (size >= 0 && size < INT32_MAX && fseek(file, 0, SEEK_SET) == 0)
        text = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
    if (text)
        text[fread(text, 1, static_cast<size_t>(size), file)] = '\0';
    else
        log_error("malloc failed.");
    fclose(file);
    return text;
}

int file_exists(const char *path)
{
    return access(path, F_OK) == 0;
}

int entry_exists(const char *path)
{
    struct stat entry;
    return lstat(path, &entry) == 0;
}

bool read_link(const char *path, char *target, size_t size)
{
    ssize_t length = readlink(path, target, size - 1);
    if (length < 0)
        return false;
    target[length] = '\0';
    return true;
}
