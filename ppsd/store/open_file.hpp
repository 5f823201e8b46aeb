// One open file of the tree, whatever stands behind it: an ordinary object, the server's end of a
// served object, or a client of one.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "ppsd/store/accounts.hpp"
#include "ppsd/store/object_name.hpp"

class OpenFile;

// Who opened a file, as the kernel tells it.
struct Opener {
    uid_t user = 0;
    gid_t group = 0;
    pid_t process = 0;
};

// Told when the readiness of an open file may have risen: it became readable, or was hung up. The
// call comes from within an operation on another file, so it must note the fact and return; it must
// not call the store or any open file.
class ReadinessListener {
  public:
    virtual ~ReadinessListener() = default;
    virtual void readinessChanged(OpenFile& file) noexcept = 0;
};

// Hears how something ended that may take its time: 0 or an errno value. Called once, perhaps
// before the call returns that it was given to.
using Done = std::function<void(int error)>;

enum class ReadOutcome {
    kBytes,    // at least one
    kNothing,  // nothing now, perhaps later
    kEnd,      // nothing ever again
    kRefused   // the rest would have to be kept for later, past the reader's share of memory
};

struct Readiness {
    bool readable = false;  // a read gives bytes, or the end of a stream
    bool hungUp = false;    // the other side is gone for good
};

// Destroying the object closes the file. Not thread-safe, like all of the store: one thread owns
// it.
class OpenFile {
  public:
    // `place` is what the file counts for among the open files of its user.
    explicit OpenFile(OpenOptions options, Charge place)
        : m_options(options), m_place(std::move(place)) {}
    virtual ~OpenFile() = default;
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    // Replaces `bytes` by at most `size` (not 0) bytes, for a process of `reader`.
    virtual ReadOutcome read(uid_t reader, std::size_t size, std::string& bytes) = 0;

    // Applies all of `text`, or nothing of it, for a process of `writer`. The text is not looked at
    // after the call returns, although the writer may hear later how it ended.
    virtual void write(uid_t writer, std::string_view text, const Done& done) = 0;

    // The write before this call was the beginning of a longer one, whose rest comes in another
    // piece. A message that was cut in two must not stand: it is taken back, and whoever has read
    // of it already is hung up on. Only called for streams.
    virtual void takeBackCutWrite() {}

    virtual Readiness readiness() const = 0;

    // True when the file is one end of a stream and so has no position.
    virtual bool isStream() const = 0;

    // Whether a read with nothing to give waits.
    bool waits() const { return m_options.wait; }

    // Whose open file it is.
    uid_t user() const { return m_place.user(); }

  protected:
    OpenOptions m_options;

  private:
    Charge m_place;
};
