#include "ppsd/store/changes.hpp"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace {

// So that a change of somebody else's is never further away than two rounds of so many files.
constexpr std::size_t kBatchMax = 32;
// So that large objects keep the service from its other work for one of them at a time.
constexpr std::size_t kBatchMaxBytes = 256 * 1024;

}  // namespace

void Changes::Batch::save(std::string path, bool isDirectory, Record record, Done finish) {
    const auto same = std::find_if(m_saves.begin(), m_saves.end(), [&](const Disk::Save& save) {
        return save.isDirectory == isDirectory && save.path == path;
    });
    const auto index = static_cast<std::size_t>(same - m_saves.begin());
    m_endings.push_back({index, std::move(finish)});
    m_bytes += record.lines.size();
    try {
        if (same == m_saves.end()) {
            m_saves.push_back({std::move(path), isDirectory, std::move(record), 0});
        } else {
            same->record = std::move(record);
        }
    } catch (...) {
        m_endings.pop_back();
        throw;
    }
}

void Changes::Batch::run(std::function<int()> work, Done finish) {
    m_endings.push_back({m_saves.size(), std::move(finish)});
    m_work = std::move(work);
}

Changes::Change Changes::Waiting::take() {
    Change first = std::move(m_changes.front());
    m_changes.pop_front();
    return first;
}

void Changes::add(uid_t user, bool joins, Begin begin, Done done) {
    try {
        Change change{joins, std::move(begin), done};
        m_waiting.change(user, [&](Waiting& waiting) { waiting.add(std::move(change)); });
    } catch (const std::bad_alloc&) {
        done(ENOMEM);
        return;
    }
    start();
}

void Changes::finish() {
    if (m_thread.collect()) {
        finishBatch();
    }
    start();
}

void Changes::end(int error) {
    m_thread.wait();
    if (m_thread.collect()) {
        finishBatch();
    }
    while (!m_waiting.empty()) {
        m_waiting.take().done(error);
    }
}

// Begins batches until one is at the disk or nothing waits. What a change tells when it ends may
// add another one: that is begun by the round that is under way.
void Changes::start() {
    if (m_isStarting) {
        return;
    }
    m_isStarting = true;
    while (!m_thread.isBusy() && !m_waiting.empty()) {
        beginBatch();
        if (m_batch.m_endings.empty()) {
            continue;  // nothing for the disk to do
        }
        m_thread.run([this] { doWork(); });
        if (m_thread.descriptor() < 0 && m_thread.collect()) {
            finishBatch();
        }
    }
    m_isStarting = false;
}

void Changes::beginBatch() {
    bool joins = true;
    while (joins && !m_waiting.empty() && m_batch.m_endings.size() < kBatchMax &&
           m_batch.m_bytes < kBatchMaxBytes) {
        joins = m_waiting.front().joins();
        if (!joins && !m_batch.m_endings.empty()) {
            return;
        }
        const Change change = m_waiting.take();
        try {
            change.begin(m_batch, change.done);
        } catch (const std::bad_alloc&) {
            change.done(ENOMEM);
        }
    }
}

void Changes::finishBatch() {
    const Batch batch = std::exchange(m_batch, {});
    for (const Batch::Ending& ending : batch.m_endings) {
        ending.finish(ending.save < batch.m_saves.size() ? batch.m_saves[ending.save].error
                                                         : batch.m_workError);
    }
}

// On the disk's thread.
void Changes::doWork() noexcept {
    try {
        m_disk.saveAll(m_batch.m_saves);
        if (m_batch.m_work) {
            m_batch.m_workError = m_batch.m_work();
            m_disk.noteChange(m_batch.m_workError);
        }
    } catch (const std::bad_alloc&) {
        m_batch.m_workError = ENOMEM;
        for (Disk::Save& save : m_batch.m_saves) {
            save.error = ENOMEM;
        }
    }
}
