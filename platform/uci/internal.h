// What the library's units share: packages in memory, the two file grammars and the files themselves.

#ifndef UCI_INTERNAL_H
#define UCI_INTERNAL_H

#include <cstddef>
#include <string_view>

#include <sys/stat.h>

extern "C" {
#include <uci.h>
}

// A growing piece of text; `{}` is an empty one. After a failed allocation it stays as it is and `out_of_memory` is
// set.
struct uci_text {
    char *data;
    size_t size;
    size_t capacity;
    bool out_of_memory;
};

// As substr, which would throw and so needs the C++ runtime. `from` is at most the text's size.
inline std::string_view slice(std::string_view text, size_t from, size_t count = std::string_view::npos)
{
    size_t rest = text.size() - from;
    return {text.data() + from, count < rest ? count : rest};
}

void text_append(uci_text &text, std::string_view more);
// Appends a value in single quotes, each quote within it as '\''.
void text_append_quoted(uci_text &text, std::string_view value);
void text_free(uci_text &text);

// Finds a section by its package and name and an option by its section and name, so that large packages load in
// linear time. Open addressing; `used` counts removed entries too.
struct name_index {
    uci_element **slots;
    size_t capacity;
    size_t used;
};

struct uci_loaded_package {
    uci_package pub; // first: the library's users hold a pointer to it
    name_index index;
    uci_text changes; // this context's unsaved changes, as lines of the pending file
    size_t added;     // sections among them
};

inline uci_loaded_package *loaded(uci_package *p)
{
    return reinterpret_cast<uci_loaded_package *>(p);
}

// element.cpp: packages in memory. Texts are copied. Null or false: no memory, nothing changed.
uci_loaded_package *package_create(uci_context *ctx, std::string_view name, const char *path);
void package_free(uci_loaded_package *p);
uci_section *section_find(const uci_loaded_package &p, std::string_view name);
// With an empty name: a section that number_anonymous_sections names.
uci_section *section_create(uci_loaded_package &p, std::string_view type, std::string_view name, bool anonymous);
bool section_set_type(uci_section &s, std::string_view type);
bool section_rename(uci_loaded_package &p, uci_section &s, std::string_view name);
// The section keeps its name until anonymous sections are numbered.
bool section_make_anonymous(uci_section &s);
void section_reorder(uci_loaded_package &p, uci_section &s, size_t position);
void section_remove(uci_loaded_package &p, uci_section *s);
// Names all anonymous sections by their order: the same file gives the same names.
bool number_anonymous_sections(uci_loaded_package &p);
// The name that a section appended now has once it is committed; counts `number` on for the next.
using anonymous_name = char[10];
unsigned next_anonymous_number(const uci_loaded_package &p);
void make_anonymous_name(const uci_loaded_package &p, unsigned &number, anonymous_name &name);
// Gives an anonymous section another name, in the same memory.
void section_unname(uci_loaded_package &p, uci_section &s);
bool section_name(uci_loaded_package &p, uci_section &s, const anonymous_name &name);
uci_option *option_find(const uci_loaded_package &p, const uci_section &s, std::string_view name);
// Replaces or creates.
uci_option *option_set(uci_loaded_package &p, uci_section &s, std::string_view name, std::string_view value);
uci_option *option_add_value(uci_loaded_package &p, uci_section &s, std::string_view name, std::string_view value);
// Takes every equal value off a list; a list without values goes away.
void option_remove_value(uci_loaded_package &p, uci_option *o, std::string_view value);
bool option_rename(uci_loaded_package &p, uci_option *o, std::string_view name);
void option_remove(uci_loaded_package &p, uci_option *o);

bool valid_package_name(std::string_view name);
bool valid_name(std::string_view name);
bool valid_type(std::string_view type);

// words.cpp: what both grammars consist of.
struct word_reader {
    char *pos;
    char *end;
    char *line_start;
    size_t line; // counted from 1
};

struct uci_word {
    std::string_view text;
    size_t line;
    size_t byte; // offset in its line
};

enum class word_result { word, end_of_line, end_of_text, failed };

// The next word, with its quotes removed in place; a comment counts as end of line. On failure `reason` is set and
// `word` tells where the bad word starts; the text from there on is unchanged.
word_result next_word(word_reader &reader, uci_word &word, const char *&reason);
void skip_line(word_reader &reader);

// config_text.cpp: the package's file. Parsing adds to an empty package and destroys the buffer; on UCI_ERR_PARSE the
// place is in the package's context.
int config_parse(uci_loaded_package &p, char *buffer, size_t size);
void config_write(const uci_loaded_package &p, uci_text &out);

// pending.cpp: lines of the pending file.
enum class change_kind : char {
    set = '=',
    remove = '-',
    add_value = '|',
    remove_value = '~',
    add_section = '+',
    rename = '@',
    reorder = '^',
};

struct uci_change {
    change_kind kind;
    std::string_view section;
    std::string_view option; // empty: the section itself
    std::string_view value;
};

int change_apply(uci_loaded_package &p, const uci_change &change);
void change_write(uci_text &out, std::string_view package, const uci_change &change);
// Calls `handle` for each change of the package and destroys the buffer. Lines that are no change are skipped: each
// stands for itself.
using change_handler = void (*)(void *arg, const uci_change &change);
void pending_parse(std::string_view package, char *buffer, size_t size, change_handler handle, void *arg);
// Applies all lines, skipping those whose section or option is gone; UCI_ERR_MEM or UCI_OK.
int pending_apply(uci_loaded_package &p, char *buffer, size_t size, bool &any);
// Names the sections that `own` adds as those that follow what `base`, the package as it is on disk, holds by now: once
// they are saved anybody may commit them, and their names must still be theirs.
int changes_rebase(uci_loaded_package &own, const uci_loaded_package &base);
// The same changes without those that a later line makes void, so that a setting which is made again and again
// without a commit takes no more room than one.
void pending_compact(std::string_view package, std::string_view lines, uci_text &out);

// files.cpp: the only unit that touches files.
//
// One lock guards a package with its pending changes: flock on the package's file. Whoever gets it looks whether the
// file is still the one at its path; a commit locks the new file before it renames it into place, so nobody gets in
// between before the pending file is empty.
struct locked_file {
    int fd;
    struct stat info;
};

constexpr size_t uci_file_limit = size_t{16} << 20;

// Both file paths of a package; UCI_ERR_INVAL when one is too long.
struct package_paths {
    char config[4096];
    char pending[4096];
};
int make_paths(const uci_context &ctx, std::string_view package, package_paths &paths);

int file_lock(const char *path, bool exclusive, locked_file &file);
void file_unlock(int fd);
// Appends a file's content to an empty text. A pending file may be missing.
int file_read(int fd, uci_text &out);
int pending_read(const char *path, uci_text &out);
// Appends lines to the pending file, making its folder when it is missing: all or nothing.
int pending_append(const char *path, std::string_view package, std::string_view lines);
// Opens an existing pending file for emptying it later; `fd` is -1 when there is none.
int pending_open(const char *path, int &fd);
// Replaces the file at `path`, or what a link there leads to; `new_fd` holds the lock of the new file.
int file_replace(const char *path, const struct stat &old, std::string_view content, int &new_fd);

#endif
