// A read that has to wait costs no thread: its request is kept and answered when the file becomes
// readable, when the reader is interrupted, or when the service ends. The store only notes which
// files changed; they are looked at after the request that changed them has its own answer.
//
// A poller is told once, and again only when it has asked since: whoever was woken and still cares
// asks before it waits again, and who does not ask any more costs nothing.

#include "ppsd/fuse/open_files.hpp"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kWakesAtATime = 32;
// Whether there is anything to read may take a look at large texts.
constexpr std::chrono::microseconds kWakeTime{500};

}  // namespace

OpenFiles::Entry& OpenFiles::entryOf(std::uint64_t handle) {
    return *reinterpret_cast<Entry*>(handle);
}

template <typename Action>
void OpenFiles::change(const Entry& entry, Action action) {
    m_changed.change(entry.user, [&](auto& files) { files.change(entry.file.get(), action); });
}

std::uint64_t OpenFiles::add(uid_t user, std::unique_ptr<OpenFile> file) {
    auto entry = std::make_unique<Entry>();
    entry->owner = this;
    entry->user = user;
    entry->file = std::move(file);
    Entry& added = *entry;
    const OpenFile* key = added.file.get();
    const auto place = m_entries.emplace(key, std::move(entry)).first;
    try {
        change(added, [&](Change& made) { made.entry = &added; });
    } catch (...) {
        m_entries.erase(place);
        throw;
    }
    return reinterpret_cast<std::uint64_t>(&added);
}

void OpenFiles::release(std::uint64_t handle) {
    Entry& entry = entryOf(handle);
    for (const WaitingRead& read : entry.waiting) {
        fuse_req_interrupt_func(read.request, nullptr, nullptr);
        fuse_reply_err(read.request, EBADF);
    }
    change(entry, [](Change& gone) { gone = {}; });
    // Out of sight before it closes, which others may hear of.
    const auto closing = m_entries.extract(entry.file.get());
}

OpenFile& OpenFiles::file(std::uint64_t handle) {
    return *entryOf(handle).file;
}

std::size_t OpenFiles::exchangeWritten(std::uint64_t handle, std::size_t size) {
    return std::exchange(entryOf(handle).written, size);
}

// False when there is nothing to answer with yet.
bool OpenFiles::answerRead(fuse_req_t request, OpenFile& file, std::size_t size) {
    std::string bytes;
    ReadOutcome outcome = ReadOutcome::kNothing;
    try {
        outcome = file.read(fuse_req_ctx(request)->uid, size, bytes);
    } catch (const std::bad_alloc&) {
        fuse_reply_err(request, ENOMEM);
        return true;
    }
    switch (outcome) {
        case ReadOutcome::kBytes:
            fuse_reply_buf(request, bytes.data(), bytes.size());
            return true;
        case ReadOutcome::kEnd:
            fuse_reply_buf(request, nullptr, 0);
            return true;
        case ReadOutcome::kRefused:
            fuse_reply_err(request, ENOBUFS);
            return true;
        case ReadOutcome::kNothing:
            break;
    }
    return false;
}

// A read for the kernel's page cache (of a mapping, or ahead) never waits: it holds a page that
// others need, and the file, also when whoever caused it has gone.
void OpenFiles::read(fuse_req_t request, std::uint64_t handle, std::size_t size,
                     Impatience impatience) {
    Entry& entry = entryOf(handle);
    if (answerRead(request, *entry.file, size)) {
        return;
    }
    if (!entry.file->waits()) {
        fuse_reply_buf(request, nullptr, 0);
    } else if (impatience != Impatience::kNone) {
        fuse_reply_err(request, impatience == Impatience::kNonBlocking ? EAGAIN : EIO);
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
        entry.isPolled = true;
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

// Allocates nothing: the place for the note was made with the file.
void OpenFiles::readinessChanged(OpenFile& file) noexcept {
    const auto entry = m_entries.find(&file);
    if (entry != m_entries.end()) {
        change(*entry->second, [](Change& due) { due.isDue = true; });
    }
}

void OpenFiles::wakeSome() {
    if (m_changed.empty()) {
        return;
    }
    const Clock::time_point end = Clock::now() + kWakeTime;
    for (std::size_t i = 0; i < kWakesAtATime && !m_changed.empty() && Clock::now() < end; ++i) {
        wake(*m_changed.take());
    }
}

void OpenFiles::wake(Entry& entry) {
    auto read = entry.waiting.begin();
    while (read != entry.waiting.end() && answerRead(read->request, *entry.file, read->size)) {
        ++read;
    }
    entry.waiting.erase(entry.waiting.begin(), read);
    bool isReadable = true;
    try {
        isReadable = entry.file->readiness().readable;
    } catch (const std::bad_alloc&) {
        // Whoever is woken asks again, and is told then.
    }
    if (entry.isPolled && isReadable) {
        entry.isPolled = false;
        fuse_lowlevel_notify_poll(entry.waker.get());
    }
}

void OpenFiles::closeAll() {
    m_changed.clear();
    // A closing file may notify another one that is still here, so they leave one at a time.
    while (!m_entries.empty()) {
        const auto closing = m_entries.extract(m_entries.begin());
        for (const WaitingRead& read : closing.mapped()->waiting) {
            fuse_reply_err(read.request, ENOTCONN);
        }
    }
}
