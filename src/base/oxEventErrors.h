#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "oxEvent.h"

// All error texts of the library with their result codes. Other code uses them through oxEventErrorText.h. Each text
// also needs a cause and a remedy in tools/common/error_causes.h.
namespace oxEventErrors {

enum Id : size_t {
  // Entry points.
  kNotInitialized,
  kAlreadyInitialized,
  kInvalidRecord,
  kSubmitFailed,
  kFlushTimedOut,
  kSinkFlushFailed,
  kShutdownFailed,
  kCallbackArguments,
  kCallbackNotFound,
  kLastErrorBuffer,
  kStartFailed,
  kReloadFailed,
  kEntryPointFailed,
  kUnknownException,
  kWindowsInstall,
  kWindowsRemove,
  // Used if there is no memory for a more specific text.
  kConfigLoadFailed,
  kConfigReloadFailed,
  kSinkStartFailed,
  kSinkReloadFailed,
  kWindowsInstallFailed,
  kWindowsRemoveFailed,
  // Settings file.
  kNoConfigPath,
  kConfigUnreadable,
  kNotAboveZero,
  kBadDropPolicy,
  kBadSwitch,
  kBadSeverity,
  // Opening a sink.
  kCsvNoPath,
  kCsvDirectory,
  kCsvOpen,
  kCsvHeader,
  kNativeNoMemory,
  kSyslogResolve,
  kSyslogSocket,
  kWebhookUrl,
  kWebhookPayloadMode,
  kWebhookEnvironment,
  kSnmpVersion3,
  kSnmpVersion,
  kSnmpResolve,
  kSnmpSocket,
  // Delivery by a sink.
  kSinkFailed,
  kSinkThrew,
  kSinkThrewUnknown,
  kCallbackThrew,
  kCsvRow,
  kCsvRowFlush,
  kCsvFileFlush,
  kCsvBusy,
  kSyslogSend,
  kWebhookPost,
  kSnmpTrapOid,
  kSnmpEnterpriseOid,
  kSnmpTooLong,
  kSnmpSend,
  // Internal errors: no call from the host can cause them.
  kCallbackFailed,
  kSinkShutdownFailed,
  kConfigOutput,
  kCsvOutput,
  kNativeOutput,
  kNativeHandleOutput,
  kNativeHandle,
  kSyslogOutput,
  kWebhookOutput,
  kSnmpOutput,
  kAlertmanagerOutput,
  kCount
};

struct Entry {
  Id id;
  std::string_view text;  // "{name}" is a placeholder. The values are passed in the order of the placeholders.
  uint32_t codes[2];      // Result codes returned with the text, the usual code first; 0: there is no second code.
};

// Hosts and operators compare these texts: they do not change, even where the wording is poor.
inline constexpr Entry kTable[] = {
    {kNotInitialized, "oxEvent is not initialized", {OXEVENT_NOT_INITIALIZED}},
    {kAlreadyInitialized, "oxEvent is already initialized", {OXEVENT_ALREADY_INITIALIZED}},
    {kInvalidRecord, "Invalid OXEvent", {OXEVENT_INVALID_ARGUMENT}},
    {kSubmitFailed, "oxEvent core submit failed", {OXEVENT_NOT_INITIALIZED, OXEVENT_FAILURE}},
    {kFlushTimedOut, "oxEvent core flush timed out", {OXEVENT_FAILURE, OXEVENT_NOT_INITIALIZED}},
    {kSinkFlushFailed, "oxEvent sink flush failed", {OXEVENT_FAILURE}},
    {kShutdownFailed, "oxEvent core shutdown failed", {OXEVENT_FAILURE, OXEVENT_NOT_INITIALIZED}},
    {kCallbackArguments, "Invalid callback registration arguments", {OXEVENT_INVALID_ARGUMENT}},
    {kCallbackNotFound, "Callback id was not found", {OXEVENT_NOT_FOUND}},
    {kLastErrorBuffer, "Invalid last-error buffer", {OXEVENT_INVALID_ARGUMENT}},
    {kStartFailed, "oxEvent core start failed", {OXEVENT_NOT_INITIALIZED}},
    {kReloadFailed, "oxEvent core config reload failed", {OXEVENT_NOT_INITIALIZED}},
    {kEntryPointFailed, "{entry_point} failed: {what}", {OXEVENT_FAILURE}},
    {kUnknownException, "{entry_point} failed with an unknown exception", {OXEVENT_FAILURE}},
    {kWindowsInstall, "Windows Event Log source installation is only available on Windows", {OXEVENT_NOT_FOUND}},
    {kWindowsRemove, "Windows Event Log source removal is only available on Windows", {OXEVENT_NOT_FOUND}},

    {kConfigLoadFailed, "oxEvent config load failed", {OXEVENT_INVALID_ARGUMENT}},
    {kConfigReloadFailed, "oxEvent config reload failed", {OXEVENT_INVALID_ARGUMENT, OXEVENT_FAILURE}},
    {kSinkStartFailed, "oxEvent sink initialization failed", {OXEVENT_FAILURE, OXEVENT_INVALID_ARGUMENT}},
    {kSinkReloadFailed, "oxEvent sink reload failed", {OXEVENT_FAILURE, OXEVENT_INVALID_ARGUMENT}},
    {kWindowsInstallFailed, "Windows Event Log source installation failed", {OXEVENT_NOT_FOUND}},
    {kWindowsRemoveFailed, "Windows Event Log source removal failed", {OXEVENT_NOT_FOUND}},

    {kNoConfigPath, "oxEvent requires a oxCFG XML config path", {OXEVENT_INVALID_ARGUMENT}},
    {kConfigUnreadable, "Unable to open oxEvent config: {path}", {OXEVENT_INVALID_ARGUMENT}},
    {kNotAboveZero, "{setting} must be greater than zero", {OXEVENT_INVALID_ARGUMENT}},
    {kBadDropPolicy, "Invalid drop_policy value for {key}\\drop_policy: {value}", {OXEVENT_INVALID_ARGUMENT}},
    {kBadSwitch, "Invalid boolean value for {key}\\{name}: {value}", {OXEVENT_INVALID_ARGUMENT}},
    {kBadSeverity, "Invalid minimum_severity value for {key}\\minimum_severity: {value}", {OXEVENT_INVALID_ARGUMENT}},

    {kCsvNoPath, "oxEvent CSV sink path is empty", {OXEVENT_INVALID_ARGUMENT}},
    {kCsvDirectory, "Unable to create directory for oxEvent CSV sink: {path}", {OXEVENT_FAILURE}},
    {kCsvOpen, "Unable to open oxEvent CSV file for append: {path}", {OXEVENT_FAILURE}},
    {kCsvHeader, "Unable to write oxEvent CSV header: {path}", {OXEVENT_FAILURE}},
    {kNativeNoMemory, "Unable to allocate oxEvent native log handle", {OXEVENT_FAILURE}},
    {kSyslogResolve, "oxEvent syslog UDP resolve failed for {host}:{port} error={number}", {OXEVENT_FAILURE}},
    {kSyslogSocket, "oxEvent syslog UDP socket creation failed for {host}:{port} error={number}", {OXEVENT_FAILURE}},
    {kWebhookUrl, "oxEvent webhook sink requires an http:// or https:// endpoint_url", {OXEVENT_INVALID_ARGUMENT}},
    {kWebhookPayloadMode,
     "oxEvent webhook payload_mode must be native_json or cloudevents",
     {OXEVENT_INVALID_ARGUMENT}},
    {kWebhookEnvironment,
     "oxEvent webhook sink cannot start with {variable} in the environment of a privileged process",
     {OXEVENT_FAILURE}},
    {kSnmpVersion3, "SNMPv3 requires a future external-library backend", {OXEVENT_INVALID_ARGUMENT}},
    {kSnmpVersion, "oxEvent SNMP trap sink currently supports SNMP v2c only", {OXEVENT_INVALID_ARGUMENT}},
    {kSnmpResolve, "oxEvent SNMP trap resolve failed for {host}:{port} error={number}", {OXEVENT_FAILURE}},
    {kSnmpSocket, "oxEvent SNMP trap socket creation failed for {host}:{port} error={number}", {OXEVENT_FAILURE}},

    {kSinkFailed, "oxEvent sink failed", {OXEVENT_FAILURE}},
    {kSinkThrew, "oxEvent sink failed: {what}", {OXEVENT_FAILURE}},
    {kSinkThrewUnknown, "oxEvent sink failed with an unknown exception", {OXEVENT_FAILURE}},
    {kCallbackThrew, "oxEvent callback {id} threw", {OXEVENT_FAILURE}},
    {kCsvRow, "Unable to write oxEvent CSV row: {path}", {OXEVENT_FAILURE}},
    {kCsvRowFlush, "Unable to flush oxEvent CSV row: {path}", {OXEVENT_FAILURE}},
    {kCsvFileFlush, "Unable to flush oxEvent CSV file: {path}", {OXEVENT_FAILURE}},
    {kCsvBusy, "A write takes too long to oxEvent CSV file: {path}", {OXEVENT_FAILURE}},
    {kSyslogSend, "oxEvent syslog UDP send failed to {host}:{port} error={number}", {OXEVENT_FAILURE}},
    {kWebhookPost, "oxEvent webhook POST failed: {endpoint_url}", {OXEVENT_FAILURE}},
    {kSnmpTrapOid, "Invalid SNMP trap_oid: {oid}", {OXEVENT_FAILURE}},
    {kSnmpEnterpriseOid, "Invalid SNMP enterprise_oid: {oid}", {OXEVENT_FAILURE}},
    {kSnmpTooLong, "oxEvent SNMP trap exceeds maximum datagram size", {OXEVENT_FAILURE}},
    {kSnmpSend, "oxEvent SNMP trap send failed to {host}:{port} error={number}", {OXEVENT_FAILURE}},

    {kCallbackFailed, "Callback registration failed", {OXEVENT_INVALID_ARGUMENT}},
    {kSinkShutdownFailed, "oxEvent sink shutdown failed", {OXEVENT_FAILURE}},
    {kConfigOutput, "Invalid oxEventConfig output", {OXEVENT_INVALID_ARGUMENT}},
    {kCsvOutput, "Invalid oxEvent CSV sink output", {OXEVENT_INVALID_ARGUMENT}},
    {kNativeOutput, "Invalid oxEvent native sink output", {OXEVENT_INVALID_ARGUMENT}},
    {kNativeHandleOutput, "Invalid oxEvent native log handle output", {OXEVENT_INVALID_ARGUMENT}},
    {kNativeHandle, "Invalid oxEvent native log handle", {OXEVENT_INVALID_ARGUMENT}},
    {kSyslogOutput, "Invalid oxEvent syslog UDP sink output", {OXEVENT_INVALID_ARGUMENT}},
    {kWebhookOutput, "Invalid oxEvent webhook sink output", {OXEVENT_INVALID_ARGUMENT}},
    {kSnmpOutput, "Invalid oxEvent SNMP trap sink output", {OXEVENT_INVALID_ARGUMENT}},
    {kAlertmanagerOutput, "Invalid oxEvent Alertmanager sink output", {OXEVENT_INVALID_ARGUMENT}},
};

// Whether each id has one entry, in the order of the ids, with a unique text.
consteval bool IsComplete() {
  if (std::size(kTable) != kCount) return false;
  for (size_t i = 0; i < kCount; ++i) {
    const Entry& entry = kTable[i];
    if (entry.id != i || entry.text.empty() || entry.codes[0] == OXEVENT_OK) return false;
    for (size_t j = 0; j < i; ++j) {
      if (kTable[j].text == entry.text) return false;
    }
  }
  return true;
}
static_assert(IsComplete());

}  // namespace oxEventErrors
