// The system log's socket, seen from outside the library.
#pragma once

#include <string>

// Returns why lines for the system log would be lost on this machine, or an empty string if a daemon listens.
// syslog(3) does not report that, so the library cannot either.
std::string SystemLogFault();
