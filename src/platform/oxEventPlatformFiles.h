#pragma once

#include <string>

// Any thread.

// False if the file cannot be opened for reading or is empty.
bool oxEventPlatformFileHasContent(const std::string& path);

// Creates the missing directories above the file `path`, with mode 0775 less the umask. `error` may be null.
bool oxEventPlatformEnsureParentDirectory(const std::string& path, std::string* error);
