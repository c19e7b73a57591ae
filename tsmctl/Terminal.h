// Questions to the user at the terminal.
#pragma once

#include <string>

namespace tsmctl {

// Asks on the controlling terminal, without echo. Throws UsageError where there is none.
std::string AskPassword(const std::string& question);

// Whether the user gives exactly this answer; true at once with --yes. Throws UsageError when standard input is no
// terminal.
bool Confirmed(bool yes, const std::string& question, const std::string& answer);

}  // namespace tsmctl
