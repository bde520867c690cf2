#pragma once

#include <string>

// Threads: any.

// Returns false if the file cannot be opened for reading, is empty or is a pipe.
bool oxEventPlatformFileHasContent(const std::string& path);

// Creates the missing directories above the file `path`, with mode 0775 less the umask. Returns false on failure, with
// the reason in *error; `error` may be null.
bool oxEventPlatformEnsureParentDirectory(const std::string& path, std::string* error);
