// What efhost tells systemd when it runs as a service: its state changes
// (sd_notify) and, when its standard error is the journal, the priority of
// its error lines. Outside systemd both do nothing, so the tools' output is
// the same as before under a shell or a test.
#pragma once

namespace tools {

// sd_notify(3) state such as "READY=1"; ignored without $NOTIFY_SOCKET.
void notify_service_manager(const char *state);

// Whether fd is the stream systemd connected to the journal
// ($JOURNAL_STREAM names its device and inode).
bool is_journal_stream(int fd);

// The priorities a tool's own lines carry in the journal.
enum class Priority { Error, Warning, Info };

// The journal's prefix for a line of that priority ("<3>", "<4>", "<6>")
// when standard error is connected to the journal, else "". Lines without a
// prefix get the unit's default priority (info).
const char *priority_prefix(Priority priority);

// priority_prefix(Priority::Error), read once.
const char *error_priority_prefix();

}  // namespace tools
