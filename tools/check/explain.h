// Explanations of settings, from the loader's table.
#pragma once

#include <string>
#include <string_view>

// Explains a setting, or all settings below a key. `key` is the name of a setting, or a path, with or without
// QVX\Events, whose names are separated by \, / or . and which may contain an instance's name or NAME, or omit the
// instance, or the name of one key of a path, such as webhook. Throws UsageError for an unknown key.
std::string Explain(std::string_view key);
