// The system log.

#pragma once

#include <cstdint>

// Sends one line to syslog(3), facility daemon, ident "quilagent". Severities 0 to 7 become
// LOG_EMERG, LOG_CRIT, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG and LOG_DEBUG; values
// outside are taken to the nearest end. `code` names the origin of the line for systems that file
// by it; syslog has no place for it. Text beyond 4351 bytes is cut.
//
// Here, and only here, text is made safe for a log: trailing line feeds are dropped and every other
// control byte becomes a blank, so that no pushed or requested text can forge a line.
//
// A machine without a log socket loses nothing but the log; one whose log daemon does not read
// makes the caller wait. May be called on any thread; errno may change.
//
// What a line costs: it is built in memory of the thread's own, so that this function itself
// allocates nothing and needs little stack. vsnprintf(3) and syslog(3) do: those of glibc 2.36 on
// x86-64 take the stack to 3.9 KiB, read the time zone at the first line of the process, for which
// they allocate, and allocate at every line of more than about a thousand bytes. So this is no call
// for a thread that is nearly out of stack, nor for a signal handler.
void slogf(std::uint32_t code, int severity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
