// A file is only ever extended by whole records or replaced by a complete one (temporary file, sync, rename), so that a
// power cut leaves the old or the new content.

#include "message_file.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

#include "log.h"
#include "message_json.h"
#include "message_merge.h"
#include "message_reader.h"

constexpr size_t WRITE_SIZE = 4096;
constexpr const char *OPEN_FAILED = "open message data file failed: %d, %s\n";
constexpr const char *WRITE_FAILED = "write message data file failed: %d, %s\n";

// What failed is tried again every few seconds, so a failure is printed only once until something succeeds. Guarded by
// the array's mutex.
static bool failing;

static bool first_failure()
{
    bool first = !failing;
    failing = true;
    return first;
}

static std::string_view bounded_text(const uint8_t *bytes, size_t size)
{
    const char *text = reinterpret_cast<const char *>(bytes);
    return {text, strnlen(text, size)};
}

// Sizes of the pieces of a record at the reader's position, as far as they are known.
static bool whole_record(MessageReader *reader, size_t *size)
{
    if (!reader_need(reader, RECORD_HEADER_SIZE))
        return false;
    const uint8_t *header = reader_bytes(reader);
    unsigned parts = header[RECORD_LONG] ? header[RECORD_PART_COUNT] : 1;
    size_t end = RECORD_HEADER_SIZE + read_u16(header + RECORD_SMSC_LENGTH) + read_u16(header + RECORD_SENDER_LENGTH);
    for (; parts > 0; parts--) {
        if (!reader_need(reader, end + PART_HEADER_SIZE))
            return false;
        end += PART_HEADER_SIZE + read_u16(reader_bytes(reader) + end + PART_CONTENT_LENGTH);
    }
    *size = end;
    return reader_need(reader, end);
}

// A power cut can leave zeros where an appended record was to stand; no record has texts of length 0.
static bool is_hole(const uint8_t *record)
{
    static constexpr uint8_t zeros[RECORD_HEADER_SIZE] = {};
    return memcmp(record, zeros, sizeof zeros) == 0;
}

static StoredMessage *message_from_record(const uint8_t *record)
{
    size_t smsc_length = read_u16(record + RECORD_SMSC_LENGTH);
    size_t sender_length = read_u16(record + RECORD_SENDER_LENGTH);
    const uint8_t *smsc = record + RECORD_HEADER_SIZE;
    const uint8_t *next = smsc + smsc_length + sender_length;
    MessageFields fields = {
        .alphabet = static_cast<int8_t>(record[RECORD_ALPHABET]),
        .read = record[RECORD_READ] != 0,
        .is_long = record[RECORD_LONG] != 0,
        .international = record[RECORD_INTERNATIONAL] == 1,
        .csms_ref = read_u16(record + RECORD_CSMS_REF),
        .total = record[RECORD_TOTAL],
        .date = bounded_text(record + RECORD_DATE, STAMP_SIZE - 1),
        .time = bounded_text(record + RECORD_TIME, STAMP_SIZE - 1),
        .smsc = bounded_text(smsc, smsc_length),
        .sender = bounded_text(smsc + smsc_length, sender_length),
    };
    MessagePart parts[MOST_PARTS];
    unsigned count = fields.is_long ? record[RECORD_PART_COUNT] : 1;
    PartWalk walk = {next, count};
    for (unsigned i = 0; i < count; i++)
        (void)next_part(&walk, &parts[i]);
    StoredMessage *message = message_new(fields, {parts, count});
    if (message)
        message->all_parts_present = fields.is_long && count == fields.total;
    return message;
}

// Returns false when the array could not take all messages. `same` tells whether a rewrite would give the bytes of the
// file.
static bool read_records(MessageReader *reader, MessageArray *array, bool *same)
{
    size_t size;
    *same = true;
    while (whole_record(reader, &size) && !is_hole(reader_bytes(reader))) {
        StoredMessage *message = message_from_record(reader_bytes(reader));
        if (!message || array_append(array, message) != 0) {
            free(message);
            return false;
        }
        *same = *same && message->size == size && memcmp(record_of(message), reader_bytes(reader), size) == 0;
        reader_skip(reader, size);
    }
    *same = *same && reader->at_end && reader_available(reader) == 0;
    return !reader->failed;
}

bool keep_message_file(const char *path, const char *suffix, const char *reason)
{
    char kept[PATH_MAX];
    if (snprintf(kept, sizeof kept, "%s%s", path, suffix) >= PATH_MAX)
        return false;
    (void)file_unlink(kept); // usually there is none
    // Some file systems have no hard links.
    bool done = file_link(path, kept) == 0 || file_rename(path, kept) == 0;
    if (done)
        print_out("message data file %s, kept as %s\n", reason, kept);
    else if (first_failure())
        print_out("message data file %s, could not be kept as %s\n", reason, kept);
    return done;
}

struct LoadOutcome {
    int result;    // as load_messages
    bool complete; // all messages are in the array
    bool intact;   // nothing in the file is damaged
    bool records;  // it holds records, and nothing else when it is complete and intact
};

static LoadOutcome read_content(int fd, uint64_t file_size, MessageArray *array)
{
    MessageReader reader;
    reader_start(&reader, fd);
    LoadOutcome outcome = {0, true, true, false};
    if (reader_need(&reader, sizeof MESSAGE_FILE_MAGIC) &&
        memcmp(reader_bytes(&reader), MESSAGE_FILE_MAGIC, sizeof MESSAGE_FILE_MAGIC) == 0) {
        reader_skip(&reader, sizeof MESSAGE_FILE_MAGIC);
        array->present = true;
        outcome.records = true;
        outcome.complete = read_records(&reader, array, &outcome.intact);
        outcome.intact = outcome.intact || !outcome.complete;
    } else if (file_size != 0 && file_size != sizeof MESSAGE_FILE_MAGIC) {
        bool read = !reader.failed && read_message_json(&reader, array, &outcome.complete, &outcome.intact);
        outcome.result = read ? 1 : -1;
    } else {
        array->present = true;
    }
    reader_free(&reader);
    return outcome;
}

static int read_open_file(int fd, const char *path, MessageArray *array)
{
    FileIdentity identity;
    LoadOutcome outcome = {-1, true, true, false};
    bool was_empty = array->count == 0;
    if (file_identity(fd, &identity) == 0) {
        bool empty = identity.size == 0 || identity.size == sizeof MESSAGE_FILE_MAGIC;
        if (empty)
            print_out("message data file empty.\n");
        outcome = read_content(fd, identity.size, array);
        array->file = {was_empty && outcome.records && outcome.complete && outcome.intact, array->count, identity};
    }
    if (outcome.result < 0 && first_failure())
        print_out("load message data file failed.\n");
    // A file of which no copy can be kept must not be replaced. It is treated as one that cannot be read.
    bool kept = (outcome.complete || keep_message_file(path, ".full", "not read completely")) &&
                (outcome.intact || keep_message_file(path, ".damaged", "damaged"));
    if (outcome.result < 0 || !kept) {
        array_free(array);
        return -1;
    }
    failing = false;
    return outcome.result;
}

int read_message_file(const char *path, MessageArray *array)
{
    int fd = file_open(path, O_RDONLY | O_NONBLOCK); // a pipe of that name must not hold the start up
    if (fd < 0 && (errno == ENOENT || errno == ENOTDIR)) {
        print_out("message data file not exist.\n");
        array->present = true;
        array->file.current = false;
        failing = false;
        return 0;
    }
    if (fd < 0) {
        if (first_failure())
            print_out(OPEN_FAILED, errno, strerror(errno));
        return -1;
    }
    int result = read_open_file(fd, path, array);
    (void)file_close(fd); // nothing was written through it
    return result;
}

bool message_file_appeared(const char *path, const MessageArray *array)
{
    FileIdentity found;
    const FileIdentity &known = array->file.identity;
    return file_identity_of(path, &found) == 0 && (found.device != known.device || found.inode != known.inode);
}

// For a file that appears after the start, because its folder was mounted late or somebody put it there. Its messages
// come first, those of the array behind them. Returns 0, or -1 when the file cannot be read.
static int take_up_file(const char *path, MessageArray *array)
{
    MessageArray joined = {};
    if (read_message_file(path, &joined) < 0)
        return -1;
    bool fits = true;
    uint32_t found = joined.count;
    for (uint32_t i = 0; i < array->count && fits; i++)
        fits = merge_stored(&joined, array->items[i]);
    if (!fits) {
        array_free(&joined);
        return keep_message_file(path, ".full", "does not fit into the store") ? 0 : -1;
    }
    if (array->count > 0)
        joined.file.current = false;
    print_out("message data file appeared, %u messages taken up\n", found);
    array_free(array);
    *array = joined;
    return 0;
}

struct RecordWriter {
    int fd;
    bool failed;
    size_t used;
    uint64_t written;
    uint8_t buffer[WRITE_SIZE];
};

static void flush_records(RecordWriter *writer)
{
    if (!writer->failed && writer->used > 0)
        writer->failed = file_write(writer->fd, writer->buffer, writer->used) < 0;
    writer->used = 0;
}

static void put_bytes(RecordWriter *writer, const uint8_t *bytes, size_t size)
{
    writer->written += size;
    while (size > 0) {
        size_t part = WRITE_SIZE - writer->used < size ? WRITE_SIZE - writer->used : size;
        memcpy(writer->buffer + writer->used, bytes, part);
        writer->used += part;
        bytes += part;
        size -= part;
        if (writer->used == WRITE_SIZE)
            flush_records(writer);
    }
}

// Writes the messages from the given position on and syncs them. 0 or -1 with errno.
static int write_records(RecordWriter *writer, const MessageArray *array, uint32_t from)
{
    for (uint32_t i = from; i < array->count; i++)
        put_bytes(writer, record_of(array->items[i]), array->items[i]->size);
    flush_records(writer);
    return writer->failed ? -1 : file_sync(writer->fd);
}

static bool same_file(const FileIdentity &a, const FileIdentity &b)
{
    return a.device == b.device && a.inode == b.inode && a.size == b.size;
}

// 0 when the file holds the array afterwards; -1 when it has to be replaced.
static int append_to_file(const char *path, MessageArray *array)
{
    MessageFileState *state = &array->file;
    RecordWriter writer;
    FileIdentity identity;
    writer.fd = file_open(path, O_WRONLY | O_APPEND);
    if (writer.fd < 0)
        return -1;
    writer.failed = false;
    writer.used = 0;
    writer.written = 0;
    int result = -1;
    if (file_identity(writer.fd, &identity) == 0 && same_file(identity, state->identity)) {
        result = state->count == array->count ? 0 : write_records(&writer, array, state->count);
        if (result != 0)
            (void)file_truncate(writer.fd, identity.size); // else the next load drops the torn record
    }
    (void)file_close(writer.fd); // synced already
    if (result != 0)
        return -1;
    state->count = array->count;
    state->identity.size += writer.written;
    return 0;
}

int create_temporary_file(const char *path)
{
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    (void)file_unlink(path); // left by a power cut, or a link that somebody put there
    int fd = file_open(path, FLAGS);
    if (fd < 0 && errno == ENOENT && file_make_folder(path) == 0)
        fd = file_open(path, FLAGS);
    return fd;
}

static int write_whole_file(const char *path, const MessageArray *array, FileIdentity *identity)
{
    RecordWriter writer;
    writer.fd = create_temporary_file(path);
    if (writer.fd < 0) {
        if (first_failure())
            print_out(OPEN_FAILED, errno, strerror(errno));
        return -1;
    }
    writer.failed = false;
    writer.used = 0;
    writer.written = 0;
    put_bytes(&writer, MESSAGE_FILE_MAGIC, sizeof MESSAGE_FILE_MAGIC);
    int result = write_records(&writer, array, 0);
    if (result == 0)
        result = file_identity(writer.fd, identity);
    int error = errno;
    if (file_close(writer.fd) < 0 && result == 0) {
        result = -1;
        error = errno;
    }
    if (result != 0 && first_failure())
        print_out(WRITE_FAILED, error, strerror(error));
    return result;
}

static int replace_file(const char *path, MessageArray *array)
{
    char temporary[PATH_MAX];
    FileIdentity identity;
    if (snprintf(temporary, sizeof temporary, "%s.tmp", path) >= PATH_MAX) {
        if (first_failure())
            print_out(OPEN_FAILED, ENAMETOOLONG, strerror(ENAMETOOLONG));
        return -1;
    }
    array->file.current = false;
    if (write_whole_file(temporary, array, &identity) != 0) {
        (void)file_unlink(temporary); // the next save does so anyway
        return -1;
    }
    if (file_rename(temporary, path) < 0) {
        if (first_failure())
            print_out(WRITE_FAILED, errno, strerror(errno));
        (void)file_unlink(temporary);
        return -1;
    }
    if (file_sync_folder(path) < 0) {
        if (first_failure())
            print_out(WRITE_FAILED, errno, strerror(errno));
        return -1;
    }
    array->file = {true, array->count, identity};
    return 0;
}

int write_message_file(const char *path, MessageArray *array)
{
    if (!array->present || (message_file_appeared(path, array) && take_up_file(path, array) != 0))
        return -1;
    if (!(array->file.current && append_to_file(path, array) == 0) && replace_file(path, array) != 0)
        return -1;
    failing = false;
    return 0;
}
