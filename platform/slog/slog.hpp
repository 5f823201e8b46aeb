// The system log.

#pragma once

#include <cstddef>
#include <cstdint>

// Sends one line to the system log, as syslog(3) would with facility daemon and ident "quilagent":
// "<PRI>Mmm dd hh:mm:ss quilagent[PID]: text", in local time, as a datagram to /dev/log. Severities
// 0 to 7 become LOG_EMERG, LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG and
// LOG_DEBUG; values outside are taken to the nearest end. `code` names the origin of the line for
// systems that file by it; the system log has no place for it. Text beyond 4351 bytes is cut.
//
// Here, and only here, text is made safe for a log: trailing line feeds are dropped and every other
// control byte becomes a blank, so that no pushed or requested text can forge a line.
//
// Never waits. A line that cannot be handed over at once, because nobody listens or the log daemon
// does not read, is lost and counted; "N lines lost", a warning, comes in front of the next line
// that arrives. The lines of one thread arrive in their order; a line of another thread may come
// between that report and the line behind it, or just before it.
//
// May be called on any thread, and in a child that was forked; errno may change.
//
// What a line costs: one system call, and no allocation by this function. Where nobody listens it
// costs none: one line a second tries, and holds no descriptor when that fails. A daemon that was
// started anew is found by the next line. The C library is asked for the time zone once a second,
// for which it may allocate. The socket's number is 256 or above if there is one to be had, and
// never that of a standard stream.
//
// The line is built in memory of the thread's own. vsnprintf(3) of glibc 2.36 on x86-64 takes the
// stack to 3.9 KiB at the first line all the same, so this is no call for a thread that is nearly
// out of stack, nor for a signal handler.
void slogf(std::uint32_t code, int severity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// A line that is ready.
struct SlogEntry {
    int severity;
    const char* text;
    std::size_t length;
};

// What slogf would do with "%.*s" for each, in their order, with one system call for many of them.
// Where nobody listens it costs none, however many there are.
void slogLines(std::uint32_t code, const SlogEntry* lines, std::size_t count);
