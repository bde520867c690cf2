// What a setting means, from the table that the loader goes by.
#pragma once

#include <string>
#include <string_view>

// Of a setting, or of all below a key, by the path as people write it: below the root or from it, with \, / or .
// between names, an instance by name, as NAME or left out; or by a setting's name alone. Throws UsageError for an
// unknown key.
std::string Explanation(std::string_view key);
