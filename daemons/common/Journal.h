// Daemon::journal...: lines the journal shows with their priority. When
// systemd connects a daemon's stdout or stderr to the journal it names the
// stream in JOURNAL_STREAM ("<device>:<inode>"); a line written there that
// starts with "<N>" is stored at syslog priority N, and the journal adds
// the time and the pid itself. Anywhere else (a terminal, a file, a test)
// nothing changes.
//
//   Daemon::journalStreamIs(std::cerr, Daemon::Priority::err);  // set-up failures
//   if (Daemon::fdIsJournal(STDOUT_FILENO)) std::fputs(Daemon::priorityPrefix(Daemon::Priority::warning), stdout);
//   Daemon::journalTraceIs();  // trace lines: "<N><handle> <level> <text>"
//
// Trace levels map to priorities as the agent uses them: 0-1 err, 2
// (refusals and failures) warning, 3 notice, 4 info, 5-9 debug.
#pragma once

#include <iosfwd>
#include <string_view>

namespace Daemon {

enum class Priority { err = 3, warning = 4, notice = 5, info = 6, debug = 7 };

// Whether fd is the stream JOURNAL_STREAM names (read from the environment
// given, so tests can pass their own).
bool fdIsJournal(int fd, char const* journalStream);
bool fdIsJournal(int fd);

// "<N>": the prefix that gives a line priority p.
char const* priorityPrefix(Priority p);

Priority tracePriority(int level);

// Makes every line written to os (std::cout or std::cerr, whose file
// descriptor is fd) start with p's prefix, for the rest of the process.
// Nothing when fd does not go to the journal.
void journalStreamIs(std::ostream& os, int fd, Priority p);

// Trace lines go to stderr without their own time and pid, at the priority
// of their level, when stderr goes to the journal. True when it did.
bool journalTraceIs();

}  // namespace Daemon
