// What causes each error of the library, and how to remedy it.
#pragma once

#include <cstddef>
#include <iterator>
#include <string_view>

#include "base/oxEventErrors.h"

// Where the text of an error appears.
enum class ErrorOrigin {
  kCall,      // In the last error of the thread whose call failed.
  kDelivery,  // In the last error of a sink: the call that reported the event has already returned.
  kInternal   // Nowhere, unless the library has a bug.
};

struct ErrorCause {
  oxEventErrors::Id id;
  ErrorOrigin origin;
  std::string_view cause;
  std::string_view remedy;
};

inline constexpr std::string_view kInternalCause =
    "The library has misused one of its own components. No call from the host can cause this.";
inline constexpr std::string_view kInternalRemedy =
    "Report it as a bug in the library, with its version and the error text.";
inline constexpr std::string_view kCsvWriteRemedy =
    "Find out what limits the file: the free space (df -h PATH), the quota, the file size limit (/proc/PID/limits) or "
    "a fault of the device (dmesg). Remove the cause, then have the host call oxEventReloadConfig, which opens the "
    "file again. If this file itself has filled the disk, delete it first: the reload then closes the deleted file, "
    "which frees its space.";
inline constexpr std::string_view kMemoryRemedy =
    "Make more memory available: free -m shows how much the system has free, /proc/PID/limits what limits the process "
    "(address space), and memory.max what limits its control group.";
inline constexpr std::string_view kMemoryRemedyBeforeStart =
    "Make more memory available (free -m shows how much the system has free, memory.max what limits the control "
    "group), then start again: the error text then names the cause.";
inline constexpr std::string_view kMemoryRemedyBeforeReload =
    "Make more memory available (free -m shows how much the system has free, memory.max what limits the control "
    "group), then reload again: the error text then names the cause.";
inline constexpr std::string_view kResolveRemedy =
    "On the machine where the process runs, and as the same user, run getent ahosts HOST, and correct host or port, or "
    "use an IP address instead of a name; then start or reload again. The number is an error code of getaddrinfo. -2 "
    "or -5: the name does not exist or has no address; -3: the name server does not respond; -4: the name server "
    "refuses the query; -8: the port is above 65535; -10: out of memory; -11: a system error.";
inline constexpr std::string_view kSocketRemedy =
    "Remove the cause, then start or reload again. The number is an errno value. 24 or 23: too many open files in the "
    "process or in the system (ls /proc/PID/fd, /proc/PID/limits): raise the limit, or fix what leaves files open; 97: "
    "the system lacks the address family: if IPv6 is disabled, use an IPv4 address; 1 or 13: the sandbox of the "
    "process forbids sockets: allow them; 12 or 105: out of memory: make more available.";
inline constexpr std::string_view kSendRemedy =
    "The number is an errno value. 101 or 113: there is no route to the destination (ip route get ADDRESS): correct "
    "the address or the routes; 1: a packet filter on this machine rejects the datagram (nft list ruleset): allow it; "
    "13: the address is a broadcast address: use the receiver's own; 99: the machine has no address of that family: if "
    "IPv6 is disabled, use an IPv4 address; 90: the datagram is too large: report shorter strings; 9 or 88: the host "
    "has closed a file descriptor of the library: fix the host; 105: the transmit queue of the network interface is "
    "full: report events more slowly.";

inline constexpr ErrorCause kErrorCauses[] = {
    {oxEventErrors::kNotInitialized, ErrorOrigin::kCall,
     "The library is not running: oxEventInitialize was not called or failed, oxEventShutdown was called, the process "
     "is exiting, or this is a child process after fork.",
     "Check the host's log for a failed oxEventInitialize. A child process, such as a daemon, must call "
     "oxEventInitialize itself after fork."},
    {oxEventErrors::kAlreadyInitialized, ErrorOrigin::kCall,
     "oxEventInitialize was called while the library was running, or before oxEventShutdown had returned on another "
     "thread.",
     "To apply changed settings, call oxEventReloadConfig. To restart the library, wait until oxEventShutdown has "
     "returned."},
    {oxEventErrors::kInvalidRecord, ErrorOrigin::kCall,
     "The host reported an invalid record: null, struct_size below 48, a version other than OXEVENT_API_VERSION, a "
     "null or empty message, or a severity above 3. The event is lost.",
     "Fix the host: set struct_size to sizeof(oxEventRecord), version to OXEVENT_API_VERSION, message to a non-empty "
     "string and severity to at most 3."},
    {oxEventErrors::kSubmitFailed, ErrorOrigin::kCall,
     "0x80050001: the library was shut down, or the process began to exit, while the event was being reported. "
     "0x80050005: out of memory for the copy of the event. The event is lost.",
     "0x80050001: end the host's reporting threads before the host calls oxEventShutdown or exits. 0x80050005: make "
     "more memory available (free -m shows how much the system has free, /proc/PID/limits what limits the process, and "
     "memory.max what limits its control group)."},
    {oxEventErrors::kFlushTimedOut, ErrorOrigin::kCall,
     "Events were still queued or being delivered when the timeout of oxEventFlush expired, or a CSV sink, possibly "
     "one that a reload has replaced, could not write its buffered rows. Inside a callback, the call fails if events "
     "are queued. With OXEVENT_NOT_INITIALIZED: the library was shut down during the call.",
     "Look for a sink that is slow or fails: a full disk behind the path of a CSV sink, an endpoint_url that does not "
     "respond. After a failed write, a CSV sink writes nothing more: remove the cause, then call oxEventReloadConfig. "
     "If no sink fails, give oxEventFlush a longer timeout, or, if a callback calls it, call it on another thread."},
    {oxEventErrors::kSinkFlushFailed, ErrorOrigin::kCall,
     "During oxEventShutdown or the last flush before it, a CSV sink, possibly one that a reload has replaced, could "
     "not write its rows or did not write them in time. Rows are missing from its file or will be written late. If "
     "only the earlier flush failed in this way, this text is left over from that flush; oxEventShutdown itself failed "
     "because it discarded queued events. (oxEventFlush itself reports a failed sink as \"oxEvent core flush timed "
     "out\".)",
     "Check the disks of the paths in the sections below sink\\csv: df -h PATH, df -i PATH, the quota and ulimit -f. "
     "Remove the cause, then start the library again or, if it is running, call oxEventReloadConfig: until then, a CSV "
     "sink that has failed writes nothing more."},
    {oxEventErrors::kShutdownFailed, ErrorOrigin::kCall,
     "oxEventShutdown could not deliver all queued events within 5 s, or was called inside a callback while events "
     "were queued, and discarded the rest. With OXEVENT_NOT_INITIALIZED: the process began to exit during the call. "
     "The library is shut down nevertheless. If a sink failed in the last flush or reload before it, the text of that "
     "failure replaces this one.",
     "Look for a slow sink: reduce request_timeout_ms and retry_count of a webhook, and make callbacks return sooner. "
     "If all events must be delivered, call oxEventFlush(0) before oxEventShutdown, and neither of the two inside a "
     "callback."},
    {oxEventErrors::kCallbackArguments, ErrorOrigin::kCall,
     "The host called oxEventRegisterCallback with a null callback or a null id_out.",
     "Fix the host: neither callback nor id_out may be null."},
    {oxEventErrors::kCallbackNotFound, ErrorOrigin::kCall,
     "No callback has this id: it was never assigned, or its callback was already removed by "
     "oxEventUnregisterCallback, by oxEventShutdown or by a failed oxEventInitialize.",
     "Fix the host: keep the id from oxEventRegisterCallback, and register callbacks again after a shutdown or a "
     "failed oxEventInitialize."},
    {oxEventErrors::kLastErrorBuffer, ErrorOrigin::kCall,
     "The host called oxEventGetLastError with a null buffer or with buffer_size 0.",
     "Fix the host: pass a buffer and its size. 512 bytes hold most texts."},
    {oxEventErrors::kStartFailed, ErrorOrigin::kCall,
     "oxEventInitialize was called while the process was exiting or the library was being unloaded.",
     "Call oxEventInitialize before main returns or exit is called, and not in a static destructor or an exit "
     "handler."},
    {oxEventErrors::kReloadFailed, ErrorOrigin::kCall,
     "The process began to exit, or the library began to be unloaded, during oxEventReloadConfig.",
     "None needed: the library has been stopped."},
    {oxEventErrors::kEntryPointFailed, ErrorOrigin::kCall,
     "The call could not be completed. std::bad_alloc: out of memory. \"Resource temporarily unavailable\" from "
     "oxEventInitialize: no thread could be created.",
     "Make more memory available, or allow more threads: free -m shows how much memory is free, /proc/PID/limits what "
     "limits the process (address space, processes), and memory.max and pids.max what limits its control group. Then "
     "repeat the call."},
    {oxEventErrors::kUnknownException, ErrorOrigin::kCall,
     "Host code that ran within the call, such as a replaced operator new, threw something that is not a "
     "std::exception.",
     "Fix the host: operator new may throw only std::bad_alloc."},
    {oxEventErrors::kWindowsInstall, ErrorOrigin::kCall,
     "The host called oxEventInstallWindowsEventSource, which is not available on Linux.",
     "None needed: on Linux, the sinks below sink\\native write to the system log without it."},
    {oxEventErrors::kWindowsRemove, ErrorOrigin::kCall,
     "The host called oxEventRemoveWindowsEventSource, which is not available on Linux.",
     "None needed: there is no event source to remove on Linux."},
    {oxEventErrors::kConfigLoadFailed, ErrorOrigin::kCall,
     "oxEventInitialize refused the settings file, and there was no memory for the error text.",
     kMemoryRemedyBeforeStart},
    {oxEventErrors::kConfigReloadFailed, ErrorOrigin::kCall,
     "oxEventReloadConfig refused the settings file, or could not open a sink, and there was no memory for the error "
     "text. The previous settings stay in effect.",
     kMemoryRemedyBeforeReload},
    {oxEventErrors::kSinkStartFailed, ErrorOrigin::kCall,
     "A sink could not be opened during oxEventInitialize, and there was no memory for the error text.",
     kMemoryRemedyBeforeStart},
    {oxEventErrors::kSinkReloadFailed, ErrorOrigin::kCall,
     "A sink could not be opened during oxEventReloadConfig, and there was no memory for the error text. The previous "
     "settings stay in effect.",
     kMemoryRemedyBeforeReload},
    {oxEventErrors::kWindowsInstallFailed, ErrorOrigin::kCall,
     "The host called oxEventInstallWindowsEventSource, which is not available on Linux, and there was no memory for "
     "the error text.",
     "None needed: on Linux, the sinks below sink\\native write to the system log without it."},
    {oxEventErrors::kWindowsRemoveFailed, ErrorOrigin::kCall,
     "The host called oxEventRemoveWindowsEventSource, which is not available on Linux, and there was no memory for "
     "the error text.",
     "None needed: there is no event source to remove on Linux."},
    {oxEventErrors::kNoConfigPath, ErrorOrigin::kCall,
     "The host called oxEventInitialize without the path of a settings file, or oxEventReloadConfig without a path "
     "before a successful oxEventInitialize or after oxEventShutdown.",
     "Give the host the path of the settings file, on its command line or wherever the host reads the path from."},
    {oxEventErrors::kConfigUnreadable, ErrorOrigin::kCall,
     "The settings file does not exist, is not readable by the user of the process, is not a regular file, is larger "
     "than 64 MiB, or is not a valid settings file: for example, it contains a comment with \"--\" inside, a control "
     "character, or a reference to a character that XML does not allow, such as &#0;. Or the process has run out of "
     "file descriptors or memory. The file is unchanged.",
     "Check with namei -l PATH whether the file exists and is readable by the user of the process, and with "
     "oxevent-check PATH whether it is a valid settings file (root element config); correct what they show. A relative "
     "path is relative to the working directory of the process. An empty file is enough: the library completes it. For "
     "a running process, also compare the number of its file descriptors (ls /proc/PID/fd | wc -l) with their limit "
     "(/proc/PID/limits)."},
    {oxEventErrors::kNotAboveZero, ErrorOrigin::kCall, "The setting QVX\\Events\\core\\queue_size is 0.",
     "Set it to a number above 0 (the default is 1024), or remove the value: the library adds its default."},
    {oxEventErrors::kBadDropPolicy, ErrorOrigin::kCall, "The value of the setting is not a drop policy.",
     "Set it to drop_newest or drop_debug_info_first, or remove the value: the library adds its default."},
    {oxEventErrors::kBadSwitch, ErrorOrigin::kCall,
     "The value of the switch means neither on nor off. If several values are invalid, the text names the last one.",
     "Set it to 1, true, yes, on or enabled, or to 0, false, no, off or disabled, without blanks around a word; or "
     "remove the value: the library adds its default."},
    {oxEventErrors::kBadSeverity, ErrorOrigin::kCall,
     "The value of the setting is not a severity. If several values are invalid, the text names the last one.",
     "Set it to debug, info, warning or error, without blanks around it, or to a number from 0 to 3; or remove the "
     "value: the library adds info."},
    {oxEventErrors::kCsvNoPath, ErrorOrigin::kCall, "An enabled section below sink\\csv has an empty path.",
     "Set its path, or disable the section (set enabled to 0)."},
    {oxEventErrors::kCsvDirectory, ErrorOrigin::kCall,
     "A directory in the path of a CSV sink does not exist and could not be created: the user of the process has no "
     "permission to write to its parent directory, a file of the same name exists, or the file system is full or "
     "read-only.",
     "Check with namei -l PATH which directories exist and who owns them. Create the directory for the user of the "
     "process, or change the path in the section below sink\\csv; a relative path is relative to the working directory "
     "of the process."},
    {oxEventErrors::kCsvOpen, ErrorOrigin::kCall,
     "The file of a CSV sink could not be opened: the user of the process has no permission to write to it or to its "
     "directory; it is a directory, or a pipe without a reader, or on a read-only file system; or the process has run "
     "out of file descriptors.",
     "Check the permissions with namei -l PATH. Give the user of the process write permission, or change the path in "
     "the section below sink\\csv. If the process has as many file descriptors (ls /proc/PID/fd | wc -l) as its limit "
     "(/proc/PID/limits) allows, raise the limit."},
    {oxEventErrors::kCsvHeader, ErrorOrigin::kCall,
     "The file of a CSV sink could be opened but not written: the file size limit of the process is reached, the "
     "device fails, or it is a pipe that has been full for 1 s. (A full disk does not cause this error: the header is "
     "then written with the first rows.)",
     "Raise the file size limit (/proc/PID/limits), repair the device (dmesg) or start the reader of the pipe; or "
     "change the path in the section below sink\\csv."},
    {oxEventErrors::kNativeNoMemory, ErrorOrigin::kCall, "There was no memory to open the system log.",
     "Make more memory available (free -m shows how much the system has free, memory.max what limits the control "
     "group), then start or reload again."},
    {oxEventErrors::kSyslogResolve, ErrorOrigin::kCall,
     "The host of an enabled section below sink\\syslog\\udp could not be resolved when the settings were loaded.",
     kResolveRemedy},
    {oxEventErrors::kSyslogSocket, ErrorOrigin::kCall,
     "The host name of the collector was resolved, but no UDP socket could be created for any of its addresses.",
     kSocketRemedy},
    {oxEventErrors::kWebhookUrl, ErrorOrigin::kCall,
     "An enabled section below sink\\webhook\\http or sink\\cloudevents\\http has an endpoint_url that is empty or has "
     "another scheme.",
     "Set its endpoint_url to a URL that begins with http:// or https://, or disable the section (set enabled to 0)."},
    {oxEventErrors::kWebhookPayloadMode, ErrorOrigin::kCall,
     "An enabled section below sink\\webhook\\http has an unknown payload_mode.",
     "Set it to native_json or cloudevents, without blanks around it."},
    {oxEventErrors::kWebhookEnvironment, ErrorOrigin::kCall,
     "The process has privileges that its caller lacks (it is a set-user-ID or set-group-ID program, or has file "
     "capabilities), and the caller has set an environment variable that affects the HTTP client: with SSLKEYLOGFILE, "
     "TLS session keys would be written to a file of the caller's choice.",
     "Unset the variable in the service or shell that starts the program, or disable the sections below "
     "sink\\webhook\\http and sink\\cloudevents\\http (set enabled to 0)."},
    {oxEventErrors::kSnmpVersion3, ErrorOrigin::kCall,
     "An enabled section below sink\\snmp\\trap has version 3, which the library does not support.",
     "Set version to 2c, or disable the section (set enabled to 0). To reach a manager that accepts only version 3, "
     "let a trap daemon on the machine forward the traps."},
    {oxEventErrors::kSnmpVersion, ErrorOrigin::kCall,
     "An enabled section below sink\\snmp\\trap has an unsupported version, or an empty one.",
     "Set version to 2c, or disable the section (set enabled to 0)."},
    {oxEventErrors::kSnmpResolve, ErrorOrigin::kCall,
     "The host of an enabled section below sink\\snmp\\trap could not be resolved when the settings were loaded.",
     kResolveRemedy},
    {oxEventErrors::kSnmpSocket, ErrorOrigin::kCall,
     "The host name of the manager was resolved, but no UDP socket could be created for any of its addresses.",
     kSocketRemedy},
    {oxEventErrors::kSinkFailed, ErrorOrigin::kDelivery,
     "When the process was forked, another thread's write to the system log hung, or another thread's fork took more "
     "than 20 ms: the sections below sink\\native cannot be used in this child process.",
     "Have the child process call exec, or disable the sections below sink\\native in its settings (set enabled to "
     "0)."},
    {oxEventErrors::kSinkThrew, ErrorOrigin::kDelivery,
     "A sink could not complete an operation. std::bad_alloc: out of memory. The event is lost for this sink; the sink "
     "continues with the next event.",
     kMemoryRemedy},
    {oxEventErrors::kSinkThrewUnknown, ErrorOrigin::kDelivery,
     "Host code that ran within a sink, such as a replaced operator new, threw something that is not a std::exception. "
     "The event is lost for this sink; the sink continues with the next event.",
     "Fix the host: operator new may throw only std::bad_alloc."},
    {oxEventErrors::kCallbackThrew, ErrorOrigin::kDelivery,
     "A callback of the host threw a C++ exception. The other callbacks received the event.",
     "Fix the host: the callback must catch its exceptions. The id is the one that oxEventRegisterCallback returned."},
    {oxEventErrors::kCsvRow, ErrorOrigin::kDelivery,
     "A write to the file of a CSV sink has failed, now or earlier: the disk or the quota is full, the file size limit "
     "of the process is reached, or the device fails. The sink writes nothing more; the rows since the last successful "
     "write are lost.",
     kCsvWriteRemedy},
    {oxEventErrors::kCsvRowFlush, ErrorOrigin::kDelivery,
     "The row of an event could not be written to the file of a CSV sink with flush_each_event: the disk or the quota "
     "is full, the file size limit of the process is reached, or the device fails. The sink writes nothing more.",
     kCsvWriteRemedy},
    {oxEventErrors::kCsvFileFlush, ErrorOrigin::kDelivery,
     "The buffered rows of a CSV sink could not be written to its file, now or earlier: the disk or the quota is full, "
     "the file size limit of the process is reached, or the device fails. The sink writes nothing more.",
     kCsvWriteRemedy},
    {oxEventErrors::kCsvBusy, ErrorOrigin::kDelivery,
     "Another thread, usually the worker, was still writing to the file of a CSV sink when the timeout of a flush, or "
     "the timeout of a reload (1 s), expired. The rows are written as soon as that write has completed.",
     "Check what the path is: a pipe needs a reader, and a network file system needs its server. grep . "
     "/proc/PID/task/*/comm /proc/PID/task/*/wchan shows the name of each thread and where it is blocked; the worker's "
     "name is oxEvent. If the write is only slow, give oxEventFlush a longer timeout."},
    {oxEventErrors::kSyslogSend, ErrorOrigin::kDelivery,
     "The system did not accept the datagram of an event for a collector below sink\\syslog\\udp. The event is lost "
     "for this sink; the sink continues with the next event.",
     kSendRemedy},
    {oxEventErrors::kWebhookPost, ErrorOrigin::kDelivery,
     "The endpoint did not accept an event within request_timeout_ms (below sink\\cloudevents\\http: timeout_ms): its "
     "URL is malformed, its host name could not be resolved, no connection was established (within "
     "connect_timeout_ms), its certificate is not trusted, its response was not 2xx, the name of a header line "
     "contains an invalid character, or bearer_token contains a line end. After the last attempt, the event is lost "
     "for this sink; the sink continues with the next event. (With retry_count 4294967295, every event fails without "
     "an attempt and without an error text.)",
     "On the machine where the process runs, and as the same user, run curl -v --noproxy '*' -H 'Content-Type: "
     "application/json' -d '{}' URL with the header lines and the credentials of the section, and correct what it "
     "reports. If the endpoint is slow or temporarily unavailable, increase connect_timeout_ms, request_timeout_ms, "
     "retry_count and backoff_ms (below sink\\cloudevents\\http: only timeout_ms)."},
    {oxEventErrors::kSnmpTrapOid, ErrorOrigin::kDelivery,
     "The trap_oid of a section below sink\\snmp\\trap is not an object identifier. The sink sends no events.",
     "Set trap_oid to two or more numbers of at most 4294967295 with one dot between them, without blanks or a leading "
     "dot, such as 1.3.6.1.4.1.32473.1.1.0.1. The first number is 0, 1 or 2; after 0 or 1, the second is at most 39. "
     "Then have the host reload the settings."},
    {oxEventErrors::kSnmpEnterpriseOid, ErrorOrigin::kDelivery,
     "The enterprise_oid of a section below sink\\snmp\\trap is not an object identifier. The sink sends no events.",
     "Set enterprise_oid to two or more numbers of at most 4294967295 with one dot between them, without blanks or a "
     "leading dot, such as 1.3.6.1.4.1.32473.1.1. The first number is 0, 1 or 2; after 0 or 1, the second is at most "
     "39. Then have the host reload the settings."},
    {oxEventErrors::kSnmpTooLong, ErrorOrigin::kDelivery,
     "The trap of an event exceeds 8192 bytes. The event's own strings are truncated, so the strings in the settings "
     "make the trap too long. The event is lost for this sink.",
     "Shorten community, enterprise_oid and trap_oid in the sections below sink\\snmp\\trap, then have the host reload "
     "the settings."},
    {oxEventErrors::kSnmpSend, ErrorOrigin::kDelivery,
     "The system did not accept the datagram of an event for a manager below sink\\snmp\\trap. The event is lost for "
     "this sink; the sink continues with the next event.",
     kSendRemedy},
    {oxEventErrors::kCallbackFailed, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kSinkShutdownFailed, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kConfigOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kCsvOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kNativeOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kNativeHandleOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kNativeHandle, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kSyslogOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kWebhookOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kSnmpOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
    {oxEventErrors::kAlertmanagerOutput, ErrorOrigin::kInternal, kInternalCause, kInternalRemedy},
};

// Returns whether each id has one entry, in the order of the ids.
consteval bool ErrorCausesAreComplete() {
  if (std::size(kErrorCauses) != oxEventErrors::kCount) return false;
  for (size_t i = 0; i < oxEventErrors::kCount; ++i) {
    const ErrorCause& entry = kErrorCauses[i];
    if (entry.id != i || entry.cause.empty() || entry.remedy.empty()) return false;
  }
  return true;
}
static_assert(ErrorCausesAreComplete());
