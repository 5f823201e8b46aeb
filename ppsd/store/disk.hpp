// The folder on disk where the tree of ordinary objects lies: the form is described in
// docs/formats/store.md.
//
// Paths given here are relative to the root of the tree, "" for the root itself. Results of type
// int are 0 or an errno value. After anything but 0 the tree on disk is as before, unless it was
// the last step that failed, the sync of a folder: then the change may or may not survive a power
// cut. Every change is on the medium when its call returns 0. Not thread-safe: one thread, the
// owner of the Store, uses it.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ppsd/store/record.hpp"
#include "ppsd/store/unique_fd.hpp"

// Takes one line for the person who looks after the service, without a line feed.
using Report = std::function<void(const std::string&)>;

class Disk {
  public:
    struct Entry {
        std::string name;
        bool isDirectory = false;
        Record record;  // of a folder only the metadata
    };

    // `folder` is made when it is missing, with its parents. Nothing is opened before open().
    Disk(std::string folder, Report report);

    // Makes or opens the folder and locks it against a second user. EWOULDBLOCK when another
    // process has it.
    int open();

    // The metadata of the root, or `fallback`, which is then stored.
    Metadata loadRoot(const Metadata& fallback);

    // The entries of a folder. Leftovers of interrupted changes are removed. What cannot be read as
    // an object or folder is reported and moved to the folder "damaged" of the store.
    std::vector<Entry> load(const std::string& path);

    int saveObject(const std::string& path, const Record& record);
    int saveDirectory(const std::string& path, const Metadata& metadata);
    int makeDirectory(const std::string& path, const Metadata& metadata);
    int removeObject(const std::string& path);
    int removeDirectory(const std::string& path);  // which must hold no objects and folders
    int rename(const std::string& from, const std::string& to);

  private:
    std::string treePath(const std::string& path) const;
    bool loadEntry(const std::string& path, Entry& entry, std::string& error);
    void removeLeftovers(const std::string& folder);
    void keepAside(const std::string& path, const std::string& error);

    std::string m_folder;
    Report m_report;
    UniqueFd m_lock;
};
