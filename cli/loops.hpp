#pragma once
// The two ways of reading commands. Both print every record as it arrives and let the session see it.
#include "output.hpp"
#include "session.hpp"

#include <memory>
#include <string>

namespace qnbrl_cli {

// Commands from a file descriptor, one a line. Each command's completion is waited for (bounded by
// its limit) before the next line is read; `wait` waits for an event. The first command that fails or
// runs out of time ends the run. `preamble` holds lines that run first. Returns the exit status: 0, or 1
// after a failure.
int runScript(Session& session, Inbox& inbox, Console& console, int fd, std::string preamble);

// Line editing and history on a terminal; commands do not block the prompt, and what arrives while
// the user types is printed above the line being typed. Returns the exit status.
int runInteractive(Session& session, Inbox& inbox, Console& console, const std::string& historyFile);

}  // namespace qnbrl_cli
