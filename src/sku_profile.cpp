#include "sku_profile.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "files.h"
#include "log.h"
#include "shell.h"

constexpr const char *SKU_FILE = "/tmp/sku";
constexpr size_t SKU_LENGTH_MAX = 64;
constexpr size_t PATH_SIZE = 128;
constexpr size_t DIGEST_LENGTH = 32;

bool sku_name_ok(std::string_view sku)
{
    if (sku.empty() || sku.size() > SKU_LENGTH_MAX || sku == "." || sku == "..")
        return false;
    return sku.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
           std::string_view::npos;
}

// Both paths are made of checked names, so they may stand in a command as they are.
static void restore_factory_content(const char *profile, const char *factory)
{
    char command[PATH_SIZE + 16];
    char digest[COMMAND_OUTPUT_SIZE] = "";
    char factory_digest[COMMAND_OUTPUT_SIZE] = "";
    snprintf(command, sizeof command, "md5sum %s", profile);
    (void)run_command_output(command, digest); // a digest that cannot be had stays empty
    snprintf(command, sizeof command, "md5sum %s", factory);
    (void)run_command_output(command, factory_digest);
    if (strlen(factory_digest) == DIGEST_LENGTH && strcmp(digest, factory_digest) != 0)
        (void)run_shell_format("cat %s > %s", factory, profile);
}

static void remove_wrong_link(const char *profile)
{
    char target[PATH_SIZE];
    if (!read_link(DEFAULT_PROFILE_LINK, target, sizeof target))
        return;
    log_info("Current: %s", target);
    if (strcmp(target, profile) == 0)
        return;
    log_info("removing incorrect default profile symlink");
    (void)run_shell("rm /etc/config/default_profile");
}

static void link_profile_of(const char *sku)
{
    char profile[PATH_SIZE];
    char factory[PATH_SIZE];
    snprintf(profile, sizeof profile, "/etc/config/%s_apn_profile", sku);
    snprintf(factory, sizeof factory, "/rom/etc/config/%s_apn_profile", sku);
    remove_wrong_link(profile);
    if (entry_exists(DEFAULT_PROFILE_LINK) || !file_exists(profile))
        return;
    if (file_exists(factory))
        restore_factory_content(profile, factory);
    else
        log_error("no factory copy of %s", profile);
    (void)run_shell_format("ln -s /etc/config/%s_apn_profile /etc/config/default_profile", sku);
}

void link_default_profile()
{
    if (!file_exists(SKU_FILE))
        return;
    char *sku = read_file(SKU_FILE, "r");
    if (!sku)
        return;
    sku[strcspn(sku, "\n")] = '\0';
    if (!sku_name_ok(sku)) {
        log_error("SKU refused: a name of letters, digits, '.', '_' and '-' is needed");
    } else {
        log_info("SKU: %s", sku);
        if (strcmp(sku, "default") == 0)
            (void)run_shell("rm /etc/config/default_profile");
        else
            link_profile_of(sku);
    }
    free(sku);
}
