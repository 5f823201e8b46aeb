// What the store does to single files and folders of the disk, each as one call with a result of 0
// or an errno value. All descriptors are close-on-exec.

#pragma once

#include <string>
#include <string_view>
#include <vector>

// The whole content of a regular file. Symbolic links are not followed (ELOOP); anything that is
// not a regular file gives EINVAL.
int readFile(const std::string& path, std::string& content);

// Makes `path` hold `content` or leaves it as it was: written to `aside`, synced, renamed. The
// folder of `path` is synced too, so that the change has reached the medium on return.
int replaceFile(const std::string& path, const std::string& aside, std::string_view content);

// What a folder's entry table says, forced to the medium.
int syncFolder(const std::string& path);

// The names in a folder without "." and "..", sorted.
int listFolder(const std::string& path, std::vector<std::string>& names);

// Makes `path` and what is missing above it, with mode 0755 (`mode` for the last one).
int makeFolders(const std::string& path, mode_t mode);

// Removes the regular files in a folder, then the folder.
int removeFlatFolder(const std::string& path);

// The part of `path` before its last '/', "." when there is none.
std::string folderOf(const std::string& path);
