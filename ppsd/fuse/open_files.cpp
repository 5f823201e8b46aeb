// A read that has to wait costs no thread: its request is kept and answered when the file becomes
// readable, when the reader is interrupted, or when the service ends. The store only notes which
// files changed; they are looked at after the request that changed them has its own answer.

#include "ppsd/fuse/open_files.hpp"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

OpenFiles::Entry& OpenFiles::entryOf(std::uint64_t handle) {
    return *reinterpret_cast<Entry*>(handle);
}

std::uint64_t OpenFiles::add(std::unique_ptr<OpenFile> file) {
    auto entry = std::make_unique<Entry>();
    entry->owner = this;
    entry->file = std::move(file);
    const auto handle = reinterpret_cast<std::uint64_t>(entry.get());
    const OpenFile* key = entry->file.get();
    m_entries.emplace(key, std::move(entry));
    return handle;
}

void OpenFiles::release(std::uint64_t handle) {
    Entry& entry = entryOf(handle);
    for (const WaitingRead& read : entry.waiting) {
        fuse_req_interrupt_func(read.request, nullptr, nullptr);
        fuse_reply_err(read.request, EBADF);
    }
    m_changed.erase(entry.file.get());
    m_entries.extract(entry.file.get());
}

OpenFile& OpenFiles::file(std::uint64_t handle) {
    return *entryOf(handle).file;
}

// False when there is nothing to answer with yet.
bool OpenFiles::answerRead(fuse_req_t request, OpenFile& file, std::size_t size) {
    std::string bytes;
    switch (file.read(size, bytes)) {
        case ReadOutcome::kBytes:
            fuse_reply_buf(request, bytes.data(), bytes.size());
            return true;
        case ReadOutcome::kEnd:
            fuse_reply_buf(request, nullptr, 0);
            return true;
        case ReadOutcome::kNothing:
            break;
    }
    return false;
}

void OpenFiles::read(fuse_req_t request, std::uint64_t handle, std::size_t size, bool nonBlocking) {
    Entry& entry = entryOf(handle);
    if (answerRead(request, *entry.file, size)) {
        return;
    }
    if (!entry.file->waits()) {
        fuse_reply_buf(request, nullptr, 0);
    } else if (nonBlocking) {
        fuse_reply_err(request, EAGAIN);
    } else if (fuse_req_interrupted(request) != 0) {
        // Asked beforehand, because the library must not find the request answered when it calls an
        // interrupt function from within its registration. No interrupt can come in between: they
        // arrive on this thread.
        fuse_reply_err(request, EINTR);
    } else {
        entry.waiting.push_back({request, size});
        fuse_req_interrupt_func(request, interrupted, &entry);
    }
}

void OpenFiles::interrupted(fuse_req_t request, void* entry) {
    auto& waiting = static_cast<Entry*>(entry)->waiting;
    std::erase_if(waiting, [&](const WaitingRead& read) { return read.request == request; });
    fuse_reply_err(request, EINTR);
}

void OpenFiles::poll(fuse_req_t request, std::uint64_t handle, fuse_pollhandle* waker) {
    Entry& entry = entryOf(handle);
    if (waker != nullptr) {
        entry.waker.reset(waker);
    }
    const Readiness readiness = entry.file->readiness();
    unsigned events = POLLOUT | POLLWRNORM;
    if (readiness.readable) {
        events |= POLLIN | POLLRDNORM;
    }
    if (readiness.hungUp) {
        events |= POLLHUP;
    }
    fuse_reply_poll(request, events);
}

void OpenFiles::readinessChanged(OpenFile& file) {
    m_changed.insert(&file);
}

void OpenFiles::wakeReaders() {
    const auto changed = std::exchange(m_changed, {});
    for (const OpenFile* file : changed) {
        const auto entry = m_entries.find(file);
        if (entry != m_entries.end()) {
            wake(*entry->second);
        }
    }
}

void OpenFiles::wake(Entry& entry) {
    auto read = entry.waiting.begin();
    while (read != entry.waiting.end() && answerRead(read->request, *entry.file, read->size)) {
        ++read;
    }
    entry.waiting.erase(entry.waiting.begin(), read);
    // The waker stays: a poller that is not interested in this change waits on with the same one.
    if (entry.waker != nullptr && entry.file->readiness().readable) {
        fuse_lowlevel_notify_poll(entry.waker.get());
    }
}

void OpenFiles::closeAll() {
    // A closing file may notify another one that is still here, so they leave one at a time.
    while (!m_entries.empty()) {
        const auto closing = m_entries.extract(m_entries.begin());
        for (const WaitingRead& read : closing.mapped()->waiting) {
            fuse_reply_err(read.request, ENODEV);
        }
    }
    m_changed.clear();
}
