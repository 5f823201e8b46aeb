// What the store does to single files and folders of the disk, each as one call with a result of 0
// or an errno value. All descriptors are close-on-exec. Names are those of entries of an open
// folder: a path from the root could be longer than the system takes, and could lead elsewhere by
// the time it is used.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ppsd/store/unique_fd.hpp"

// The folder `name` in `folder`; symbolic links are not followed.
int openFolder(int folder, const std::string& name, UniqueFd& opened);

// The whole content of a regular file. Symbolic links are not followed (ELOOP); anything that is
// not a regular file gives EINVAL.
int readFile(int folder, const std::string& name, std::string& content);

// Makes a file with this content that has reached the medium, though perhaps not under its name. A
// file that was there is replaced; after an error there is none.
int writeSynced(int folder, const std::string& name, std::string_view content);

// What a folder's entry table says, forced to the medium.
int syncFolder(int folder);
int syncFolder(const std::string& path);

// The names in a folder without "." and "..", sorted.
int listFolder(int folder, std::vector<std::string>& names);

// Removes the regular files in a folder, then the folder.
int removeFlatFolder(int folder, const std::string& name);

// Makes `path` and what is missing above it, with mode 0755 (`mode` for the last one).
int makeFolders(const std::string& path, mode_t mode);

// The part of `path` before its last '/', "." when there is none.
std::string folderOf(const std::string& path);
