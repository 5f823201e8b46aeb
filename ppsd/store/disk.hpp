// The folder on disk where the tree of ordinary objects lies: the form is described in
// docs/formats/store.md.
//
// Paths given here are relative to the root of the tree, "" for the root itself. Results of type
// int are 0 or an errno value. After anything but 0 the tree on disk is as before, as long as the
// machine runs: where the last step failed, the sync of a folder, an object may have the text that
// was to be written, and a power cut may leave the change or what was before it. Every change is on
// the medium when its call returns 0. Not thread-safe: one thread at a time uses it.

#pragma once

#include <string>
#include <vector>

#include "ppsd/store/disk_trouble.hpp"
#include "ppsd/store/record.hpp"
#include "ppsd/store/unique_fd.hpp"

class Disk {
  public:
    struct Entry {
        std::string name;
        bool isDirectory = false;
        Record record;  // of a folder only the metadata
    };

    // One object, or the metadata of one folder, that is to be kept.
    struct Save {
        std::string path;
        bool isDirectory = false;
        Record record;
        int error = 0;  // how it ended
    };

    // `folder` is made when it is missing, with its parents. Nothing is opened before open().
    Disk(std::string folder, Report report);

    // Makes or opens the folder and locks it against a second user. EWOULDBLOCK when another
    // process has it. A folder that cannot be written to is served from, and every change fails.
    int open();

    // The metadata of the root, or `fallback`, which is then stored.
    Metadata loadRoot(const Metadata& fallback);

    // The entries of a folder. Leftovers of interrupted changes are removed. What cannot be read as
    // an object or folder is reported and moved to the folder "damaged" of the store.
    std::vector<Entry> load(const std::string& path);

    // Several at once, of different paths: each is kept or not by itself, and a folder is synced
    // once for all that lie in it. That the disk is full, or cannot be written to for another
    // reason, is reported once, and once when it can again.
    void saveAll(std::vector<Save>& saves);
    int saveObject(const std::string& path, const Record& record);
    int saveDirectory(const std::string& path, const Metadata& metadata);
    int makeDirectory(const std::string& path, const Metadata& metadata);
    int removeObject(const std::string& path);
    int removeDirectory(const std::string& path);  // which must hold no objects and folders
    int rename(const std::string& from, const std::string& to);

    // To be told how a change ended that was no saveAll(), so that trouble with the disk is
    // reported.
    void noteChange(int error) { m_trouble.noteChange(error); }

    // Any descriptor on the disk below, for what it says of itself.
    int descriptor() const { return m_tree.get(); }

  private:
    int lock();
    int openFolderOf(const std::string& path, UniqueFd& folder, std::string& name) const;
    int openPath(const std::string& path, UniqueFd& folder) const;
    bool loadEntry(int folder, const std::string& name, Entry& entry, std::string& error) const;
    void removeLeftovers(int folder, const std::string& path);
    void keepAside(const std::string& path, const std::string& error);
    std::size_t freeBytes() const;

    std::string m_folder;
    Report m_report;
    DiskTrouble m_trouble;
    UniqueFd m_lock;
    UniqueFd m_tree;
};
