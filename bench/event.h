// The event that every benchmark reports. A benchmark that needs an id or time stamps adds them.
#pragma once

#include "oxEvent.h"

inline oxEventRecord OrdinaryRecord() {
  oxEventRecord record = {};
  record.struct_size = sizeof(record);
  record.version = OXEVENT_API_VERSION;
  record.event_type = "temperature.high";
  record.source_id = "rack-07/psu-2";
  record.source_name = "Power supply 2";
  record.message = "Temperature of power supply 2 is above its threshold";
  record.severity = OXEVENT_SEVERITY_WARNING;
  record.action = "update";
  record.dedupe_key = "rack-07/psu-2/temperature";
  record.correlation_id = "7c9e6679-7425-40de";
  record.pts = 8'100'000;
  record.timecode = "10:11:12:13";
  record.value = 71.3;
  record.threshold = 65.0;
  record.units = "degC";
  record.duration_ms = 1500;
  record.details_json = R"({"fan_rpm":4200,"inlet":31.5,"slot":2,"spare":false})";
  return record;
}
