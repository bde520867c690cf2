// The output formats of oxevent-stat.
#pragma once

#include <string>
#include <string_view>

#include "stat/reading.h"

std::string FormatText(const Reading& reading);

// One object, without a line feed.
std::string FormatJson(const Reading& reading);

// Metrics in the text format of Prometheus, version 0.0.4, each with a label `process`. If `reading` is null, the
// process could not be read.
std::string FormatMetrics(const Reading* reading, std::string_view process);

// The differences between the counters of two readings, as one line. Empty if the readings are certainly of different
// runs: the process is another one, or a counter has decreased.
std::string FormatChange(const Reading& earlier, const Reading& later);
