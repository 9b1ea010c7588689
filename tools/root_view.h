// The folder that a process of the private root sees as "/": the folder's own bin, etc, data, tmp, var and dev, and
// views of the host's system folders. The views are mounts of the calling process's mount namespace; the host sees
// empty folders.
#pragma once

#include <string>

// Creates what is missing in `root` (an absolute path of an existing folder): folders, links to the router's shell
// tools, and empty files that device nodes are mounted on. Keeps what is there. Several processes may do it at once.
// Throws std::system_error.
void create_root_folders(const std::string &root);

// Mounts the views into `root`: system folders and `bin` (as /celmux/bin) read-only, devices, and /proc; with
// `own_pids` a /proc of the caller's own process numbers where the kernel allows it. The caller is in a mount namespace
// of its own that passes nothing on to the host. Throws std::system_error.
void mount_root_views(const std::string &root, const std::string &bin, bool own_pids);
