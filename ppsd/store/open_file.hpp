// One open file of the tree, whatever stands behind it: an ordinary object, the server's end of a
// served object, or a client of one.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

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
    virtual void readinessChanged(OpenFile& file) = 0;
};

enum class ReadOutcome {
    kBytes,    // at least one
    kNothing,  // nothing now, perhaps later
    kEnd       // nothing ever again
};

struct Readiness {
    bool readable = false;  // a read gives bytes, or the end of a stream
    bool hungUp = false;    // the other side is gone for good
};

// Destroying the object closes the file. Not thread-safe, like all of the store: one thread owns
// it.
class OpenFile {
  public:
    explicit OpenFile(OpenOptions options) : m_options(options) {}
    virtual ~OpenFile() = default;
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    // Replaces `bytes` by at most `size` (not 0) bytes.
    virtual ReadOutcome read(std::size_t size, std::string& bytes) = 0;

    // Applies all of `text`, or nothing of it: 0 or an errno value.
    virtual int write(std::string_view text) = 0;

    virtual Readiness readiness() const = 0;

    // True when the file is one end of a stream and so has no position.
    virtual bool isStream() const = 0;

    // Whether a read with nothing to give waits.
    bool waits() const { return m_options.wait; }

  protected:
    OpenOptions m_options;
};
