#include "message_unreadable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

#include "file_ops.h"
#include "message_file.h"

constexpr size_t FILE_ROOM = 64 * 1024;
constexpr size_t LINE_ROOM = 4096; // ten times what a PDU takes

static size_t format_line(const MessageEntry &entry, char line[LINE_ROOM])
{
    int start = snprintf(line, LINE_ROOM, "%d %d %d ", entry.place, entry.status, entry.length);
    size_t used = static_cast<size_t>(start);
    for (char c : entry.pdu.substr(0, LINE_ROOM - used - 1))
        line[used++] = c > ' ' && c <= '~' ? c : '?';
    line[used++] = '\n';
    return used;
}

// Reads what is there into `text`; of a larger file the beginning. -1 when it cannot be read.
static ssize_t read_lines(char *text, size_t room)
{
    if (!file_present(UNREADABLE_FILE))
        return 0;
    int fd = file_open(UNREADABLE_FILE, O_RDONLY | O_NONBLOCK);
    if (fd < 0)
        return -1;
    size_t used = 0;
    ssize_t got = 0;
    while (used < room && (got = file_read(fd, text + used, room - used)) > 0)
        used += static_cast<size_t>(got);
    (void)file_close(fd); // nothing was written through it
    return got < 0 ? -1 : static_cast<ssize_t>(used);
}

static int replace_file(const char *text, size_t size)
{
    char temporary[64];
    snprintf(temporary, sizeof temporary, "%s.tmp", UNREADABLE_FILE);
    int fd = create_temporary_file(temporary);
    if (fd < 0)
        return -1;
    bool written = file_write(fd, text, size) == 0 && file_sync(fd) == 0;
    written = file_close(fd) == 0 && written;
    if (written && file_rename(temporary, UNREADABLE_FILE) == 0)
        return file_sync_folder(UNREADABLE_FILE);
    (void)file_unlink(temporary); // the next one does so anyway
    return -1;
}

int keep_unreadable(const MessageEntry &entry)
{
    char *text = static_cast<char *>(malloc(FILE_ROOM + LINE_ROOM));
    ssize_t had = text ? read_lines(text, FILE_ROOM) : -1;
    int result = -1;
    if (had >= 0) {
        size_t size = static_cast<size_t>(had);
        size += format_line(entry, text + size);
        const char *from = text;
        while (size > FILE_ROOM) {
            const char *end = static_cast<const char *>(memchr(from, '\n', size));
            size_t first = end ? static_cast<size_t>(end - from) + 1 : size;
            from += first;
            size -= first;
        }
        result = replace_file(from, size);
    }
    free(text);
    return result;
}
