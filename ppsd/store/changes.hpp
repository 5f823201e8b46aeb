// Changes of what is stored, on their way to the disk and back.
//
// A change has three steps. It begins on the thread of the service, when its turn has come: it
// looks at the tree as it is then, and works out what has to be on the disk. That is done by a
// thread of the disk's own. Then, again on the thread of the service, it is let be seen, and
// whoever asked for it hears how it ended. What is not on the disk is therefore never shown, and
// nobody but those who change something waits for the disk.
//
// Changes of one user keep their order; users have their turns. Those that wait together and may
// join go to the disk together, which syncs once what one change after the other would sync many
// times. A change that may not join has the disk, and the tree, for itself.

#pragma once

#include <sys/types.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ppsd/store/disk.hpp"
#include "ppsd/store/open_file.hpp"
#include "ppsd/store/side_thread.hpp"
#include "ppsd/store/turns.hpp"

class Changes {
  public:
    // What goes to the disk at a time. A change asks for one thing at most.
    class Batch {
      public:
        // Keeps an object or the metadata of a folder. Of several of one path the last counts, and
        // all hear how that ended.
        void save(std::string path, bool isDirectory, Record record, Done finish);
        // Anything else; for changes that do not join.
        void run(std::function<int()> work, Done finish);

      private:
        friend class Changes;

        struct Ending {
            std::size_t save;  // whose end it is; past all of them for the work
            Done finish;
        };

        std::vector<Disk::Save> m_saves;
        std::size_t m_bytes = 0;  // of them
        std::function<int()> m_work;
        int m_workError = 0;
        std::vector<Ending> m_endings;
    };

    // The first step. It tells `done` itself when there is nothing for the disk to do, or that it
    // cannot be done; otherwise the batch's `finish` does.
    using Begin = std::function<void(Batch& batch, const Done& done)>;

    explicit Changes(Disk& disk) : m_disk(disk) {}

    // From now on the disk's work is done by its own thread; until then, before add() returns.
    int startThread() { return m_thread.start("ppsd disk"); }
    // Whether finish() will have something to do.
    bool isBusy() const { return m_thread.isBusy(); }
    // Readable when it has.
    int descriptor() const { return m_thread.descriptor(); }

    // `done` hears the end; when memory runs out, ENOMEM.
    void add(uid_t user, bool joins, Begin begin, Done done);
    // Lets be seen what is on the disk, and begins what waits.
    void finish();
    // Ends the batch that is at the disk, and all that waits with `error`: the service ends.
    void end(int error);

  private:
    struct Change {
        bool joins;
        Begin begin;
        Done done;
    };

    class Waiting {
      public:
        bool empty() const { return m_changes.empty(); }
        bool isDone() const { return m_changes.empty(); }
        bool joins() const { return m_changes.front().joins; }
        void add(Change change) { m_changes.push_back(std::move(change)); }
        Change take();

      private:
        std::deque<Change> m_changes;
    };

    void start();
    void beginBatch();
    void finishBatch();
    void doWork() noexcept;

    Disk& m_disk;
    SideThread m_thread;
    Turns<uid_t, Waiting> m_waiting;
    Batch m_batch;  // at the disk, while the thread is busy
    bool m_isStarting = false;
};
