// What a setting means, from the loader's table.
#pragma once

#include <string>
#include <string_view>

// Explains a setting, or all settings below a key. `key` is a path from the root or from below it, with \, / or .
// between the names and an instance by its name, as NAME or left out; or the name of a setting alone. Throws
// UsageError for an unknown key.
std::string Explanation(std::string_view key);
