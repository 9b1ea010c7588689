#include "fake_port.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "files.h"

FakePort fake_port;

void FakePort::reset()
{
    *this = FakePort();
}

static std::string resolved(const std::string &path)
{
    auto link = fake_port.links.find(path);
    return link == fake_port.links.end() ? path : link->second;
}

char *read_file(const char *path, const char *)
{
    auto file = fake_port.contents.find(resolved(path));
    return fake_port.unreadable || file == fake_port.contents.end() ? nullptr : strdup(file->second.c_str());
}

int file_exists(const char *path)
{
    return fake_port.contents.count(resolved(path)) != 0;
}

int entry_exists(const char *path)
{
    return fake_port.links.count(path) || fake_port.contents.count(path);
}

bool read_link(const char *path, char *target, size_t size)
{
    auto link = fake_port.links.find(path);
    if (link == fake_port.links.end())
        return false;
    snprintf(target, size, "%s", link->second.c_str());
    return true;
}
