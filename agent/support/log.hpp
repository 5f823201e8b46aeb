// The one logging call of the agent.
//
// A line goes to the system log and is echoed on standard output as "QUIL:file.cpp(LINE): text".
// Lines above the process-wide verbosity cost one comparison. errno is the same after a line as
// before it, so that a caller may log and then still report errno. Lines keep
// their order, those of several threads too.
//
// Nothing in this unit allocates; what it calls may: see slogf for what a line costs there.
//
// Texts that end in a line feed give a blank line on standard output; that is accepted.

#pragma once

#include "agent/support/log_lines.hpp"

// The system logger's severities, as far as the agent uses them.
enum QuilLogLevel {
    LOG_LEVEL_SHORTAGE = 1,  // only for the line that tells of too little stack
    LOG_LEVEL_ERROR = 2,     // fatal at start-up, or the loop gives up
    LOG_LEVEL_WARNING = 3,   // a failure that is survived
    LOG_LEVEL_NOTICE = 4,    // what was lost is back
    LOG_LEVEL_INFO = 5,      // progress
    LOG_LEVEL_DEBUG = 6      // detail
};

// Logs at `level` on behalf of the calling line. Arguments as for printf; they are not evaluated
// for a line that is not emitted, so they must not do anything.
#define QUIL_LOG(level, ...)                                         \
    do {                                                             \
        if (isLogged(level)) {                                       \
            logMessage(level, __FILE_NAME__, __LINE__, __VA_ARGS__); \
        }                                                            \
    } while (false)

// Whether lines of that level are emitted. Any thread.
bool isLogged(int level);

// Filters, formats (text beyond 4095 bytes is cut), sends to the system log and echoes. With a null
// `sourcePath` the line has no file and number: "QUIL: text". Safe on any thread. A thread with
// 4224 bytes of stack or fewer left gets a fixed line of its own instead. Kept on purpose, although
// the formatter and the system logger need some kilobytes of stack more than that: the bound is for
// the text's own buffer, and threads of this process have megabytes.
void logMessage(int level, const char* sourcePath, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Raises the verbosity (5 at first) by `n`, to 7 at the most. Before any thread is started.
void raiseVerbosity(int n);

// Logs what `logging` logs: by calling it, or, when its lines are known, from memory. `logging`
// must not throw. The caller forgets the lines when they would be different.
void logKeptLines(const LogLines& kept);
template <typename Logging>
void logFromMemory(LogLines* lines, Logging logging) {
    if (lines->isKnown()) {
        logKeptLines(*lines);
        return;
    }
    const LogLines::Recording recording(lines);
    logging();
}

// Lets lines gather in memory, for the echo as for the system log, so that they cost no system call
// each; a line of level 3 or below is written out at once all the same, with those before it. Once,
// before the first line and before there are threads. Until then every line goes its way before the
// call returns. exit(3) then writes out what is left; _exit(2) does not.
void bufferLogEcho();

// Writes out what is held back, of all threads, or leaves it to another thread that is just doing
// so. To be called before a thread waits or ends, so that an idle process has shown all its lines.
void flushLogEcho();

// The same, and everything is written out when it returns: for the end of the process.
void finishLogEcho();
