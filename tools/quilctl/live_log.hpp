// A log that is read while it is written: a file that may be rotated, the journal, or what comes
// through a pipe.

#pragma once

#include <sys/types.h>

#include <string>

class LiveLog {
  public:
    enum class State {
        Going,  // there may be more
        Ended,  // there will be no more; of the journal it is a failure
        Failed
    };

    LiveLog() = default;
    virtual ~LiveLog() = default;
    LiveLog(const LiveLog&) = delete;
    LiveLog& operator=(const LiveLog&) = delete;

    // Appends what has come since the last call, without waiting for more where descriptor() can
    // be waited on.
    virtual State read(std::string& bytes) = 0;
    // Readable when there is more, or -1 for a log that has to be looked at from time to time.
    virtual int descriptor() const = 0;
};

// What is appended to a file, also after it was renamed and another put in its place, or cut short,
// as log rotation does.
class FollowedFile : public LiveLog {
  public:
    explicit FollowedFile(std::string path) : m_path(std::move(path)) {}
    ~FollowedFile() override;

    // Begins at its start or at its end. 0, or an errno value.
    int open(bool fromStart);

    State read(std::string& bytes) override;
    int descriptor() const override { return -1; }

  private:
    bool takeUpNext();

    std::string m_path;
    int m_descriptor = -1;
};

// Standard input, until its end.
class PipedLog : public LiveLog {
  public:
    State read(std::string& bytes) override;
    int descriptor() const override { return 0; }
};

// What journalctl(1) says of the unit "quilagent". Its process ends with this one, however that
// ends.
class JournalLog : public LiveLog {
  public:
    // False when there is no process to be had.
    bool start(bool fromStart);
    ~JournalLog() override;

    State read(std::string& bytes) override;
    int descriptor() const override { return m_descriptor; }

  private:
    pid_t m_child = -1;
    int m_descriptor = -1;
};
