// Explanations of settings, from the loader's table.
#pragma once

#include <string>
#include <string_view>

// Explains a setting, or all settings below a key. `key` is the name of a setting, the name of a key such as webhook,
// or a path with \, / or . between names. A path may omit QVX\Events, and may contain any instance's name or omit the
// instance. Throws UsageError for an unknown key.
std::string Explain(std::string_view key);
