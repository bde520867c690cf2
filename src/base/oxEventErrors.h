#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "oxEvent.h"

// Every error text of the library, with what has happened and what to do about it: for the code, which takes the texts
// from here through oxEventErrorText.h, and for whoever explains them. Causes and remedies are not compiled into the
// library. All of it is constant.
namespace oxEventErrors {

enum Id : size_t {
  // The entry points.
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
  // No memory for a better one.
  kConfigLoadFailed,
  kConfigReloadFailed,
  kSinkStartFailed,
  kSinkReloadFailed,
  kWindowsInstallFailed,
  kWindowsRemoveFailed,
  // The settings file.
  kNoConfigPath,
  kConfigUnreadable,
  kNotAboveZero,
  kBadDropPolicy,
  kBadSwitch,
  kBadSeverity,
  // The sinks, as they are opened.
  kCsvNoPath,
  kCsvFolder,
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
  // The sinks, as they deliver.
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
  // Internal checks.
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

// Where a text is met.
enum class Met {
  kCall,      // The calling thread's last error.
  kDelivery,  // The sink's own last error: the call that reported the event has returned before.
  kNever      // A check of the library's own use of its parts: only a fault in it could show the text.
};

struct Entry {
  Id id;
  Met met;
  std::string_view text;  // The code gives values for its places, "{name}", in their order.
  uint32_t codes[2];      // Result codes that it comes with, the usual first; 0: no second one.
  std::string_view cause;
  std::string_view remedy;
};

inline constexpr std::string_view kInternalCause =
    "The library has used one of its own parts wrongly. No call of a host's leads here.";
inline constexpr std::string_view kInternalRemedy =
    "Report it as a fault of the library, with the version and the text.";

inline constexpr Entry kTable[] = {
    {kNotInitialized,
     Met::kCall,
     "oxEvent is not initialized",
     {OXEVENT_NOT_INITIALIZED},
     "The library does not run: oxEventInitialize has not been called or has failed, oxEventShutdown has begun, the "
     "process is exiting, or this is the child of a fork.",
     "Look for the failure of oxEventInitialize in what the host has logged. The child of a fork, such as a program "
     "that "
     "has turned itself into a daemon, has to call oxEventInitialize itself."},
    {kAlreadyInitialized,
     Met::kCall,
     "oxEvent is already initialized",
     {OXEVENT_ALREADY_INITIALIZED},
     "oxEventInitialize was called while the library runs, or before another thread's oxEventShutdown had returned.",
     "To put changed settings into force call oxEventReloadConfig. To start anew wait until oxEventShutdown has "
     "returned."},
    {kInvalidRecord,
     Met::kCall,
     "Invalid OXEvent",
     {OXEVENT_INVALID_ARGUMENT},
     "The host reported a record that is null, has a struct_size below 48, a version other than OXEVENT_API_VERSION, "
     "no "
     "message or an empty one, or a severity above 3. The event is lost.",
     "Correct the host: set struct_size to sizeof(oxEventRecord), version to OXEVENT_API_VERSION, and a message."},
    {kSubmitFailed,
     Met::kCall,
     "oxEvent core submit failed",
     {OXEVENT_NOT_INITIALIZED},
     "The library was shut down, or the process began to exit, while the event was being reported. The event is lost.",
     "Let the host end the threads that report events before it calls oxEventShutdown."},
    {kFlushTimedOut,
     Met::kCall,
     "oxEvent core flush timed out",
     {OXEVENT_FAILURE, OXEVENT_NOT_INITIALIZED},
     "Events were still waiting when the time of oxEventFlush was up, or a sink could not write out what it buffers. "
     "In a "
     "callback: events are waiting. With OXEVENT_NOT_INITIALIZED: the library was shut down meanwhile.",
     "Look for a sink that is slow or fails: a full disk behind the path of a CSV sink, an endpoint_url that does not "
     "answer. Else give oxEventFlush more time."},
    {kSinkFlushFailed,
     Met::kCall,
     "oxEvent sink flush failed",
     {OXEVENT_FAILURE},
     "A CSV sink could not write its rows, or not in time, when the sinks were last flushed, or one that a reload has "
     "replaced could not. Rows are missing in its file, or will come late. After oxEventShutdown it may also be that "
     "the queue was not "
     "empty in 5 s.",
     "Look at the disks that the paths of the sections sink\\csv name: df -h PATH, df -i PATH, the quota and ulimit "
     "-f. "
     "Then call oxEventReloadConfig, or start the library anew: a CSV sink that has failed writes nothing more until "
     "then."},
    {kShutdownFailed,
     Met::kCall,
     "oxEvent core shutdown failed",
     {OXEVENT_FAILURE, OXEVENT_NOT_INITIALIZED},
     "oxEventShutdown could not deliver everything that was queued within 5 s, or was called in a callback while "
     "events "
     "were queued, and has discarded the rest. With OXEVENT_NOT_INITIALIZED: the process began to exit meanwhile. The "
     "library is shut down all the same. Where the last flush or reload before it has failed, that one's text comes "
     "instead of this.",
     "Look for a sink that is slow: a webhook's request_timeout_ms and retry_count, a callback. Where all events must "
     "go "
     "out, let the host call oxEventFlush(0) before oxEventShutdown."},
    {kCallbackArguments,
     Met::kCall,
     "Invalid callback registration arguments",
     {OXEVENT_INVALID_ARGUMENT},
     "The host gave oxEventRegisterCallback no callback, or no place for its id.",
     "Correct the host: neither callback nor id_out may be null."},
    {kCallbackNotFound,
     Met::kCall,
     "Callback id was not found",
     {OXEVENT_NOT_FOUND},
     "No callback has the id: it was never given out, is removed already, or was forgotten by oxEventShutdown.",
     "Correct the host: keep the id that oxEventRegisterCallback gave, and register callbacks anew after a shutdown."},
    {kLastErrorBuffer,
     Met::kCall,
     "Invalid last-error buffer",
     {OXEVENT_INVALID_ARGUMENT},
     "The host gave oxEventGetLastError no buffer, or one of size 0.",
     "Correct the host: 512 bytes hold most texts."},
    {kStartFailed,
     Met::kCall,
     "oxEvent core start failed",
     {OXEVENT_NOT_INITIALIZED},
     "oxEventInitialize was called while the process exits or the library is being unloaded.",
     "Let the host call oxEventInitialize before main returns or exit is called, and not in a destructor or an exit "
     "handler."},
    {kReloadFailed,
     Met::kCall,
     "oxEvent core config reload failed",
     {OXEVENT_NOT_INITIALIZED},
     "The process began to exit, or the library to be unloaded, during oxEventReloadConfig.",
     "None is needed: the library has been stopped."},
    {kEntryPointFailed,
     Met::kCall,
     "{entry_point} failed: {what}",
     {OXEVENT_FAILURE},
     "The call could not be finished. std::bad_alloc: no memory. \"Resource temporarily unavailable\" from "
     "oxEventInitialize: no further thread.",
     "Look at the limits of the process in /proc/PID/limits (address space, processes) and of its control group "
     "(memory.max, pids.max), and at the system's memory: free -m. Then the call can be made again."},
    {kUnknownException,
     Met::kCall,
     "{entry_point} failed with an unknown exception",
     {OXEVENT_FAILURE},
     "Code of the host's that ran within the call, such as an operator new of its own, has thrown what is no "
     "std::exception.",
     "Correct the host: an operator new may throw std::bad_alloc alone."},
    {kWindowsInstall,
     Met::kCall,
     "Windows Event Log source installation is only available on Windows",
     {OXEVENT_NOT_FOUND},
     "The host called oxEventInstallWindowsEventSource, which does nothing on Linux.",
     "None is needed: on Linux the sections sink\\native write to the system log without it."},
    {kWindowsRemove,
     Met::kCall,
     "Windows Event Log source removal is only available on Windows",
     {OXEVENT_NOT_FOUND},
     "The host called oxEventRemoveWindowsEventSource, which does nothing on Linux.",
     "None is needed: there is no event source to remove on Linux."},

    {kConfigLoadFailed,
     Met::kCall,
     "oxEvent config load failed",
     {OXEVENT_INVALID_ARGUMENT},
     "oxEventInitialize has refused the settings file, and there was no memory for the text that says why.",
     "See to memory (free -m, memory.max of the control group), then start again: the text then names the culprit."},
    {kConfigReloadFailed,
     Met::kCall,
     "oxEvent config reload failed",
     {OXEVENT_INVALID_ARGUMENT, OXEVENT_FAILURE},
     "oxEventReloadConfig has refused the settings file, or a sink could not be opened, and there was no memory for "
     "the "
     "text that says why. The old settings stay in force.",
     "See to memory (free -m, memory.max of the control group), then reload again: the text then names the culprit."},
    {kSinkStartFailed,
     Met::kCall,
     "oxEvent sink initialization failed",
     {OXEVENT_FAILURE, OXEVENT_INVALID_ARGUMENT},
     "A sink could not be opened during oxEventInitialize, and there was no memory for the text that says why.",
     "See to memory (free -m, memory.max of the control group), then start again: the text then names the culprit."},
    {kSinkReloadFailed,
     Met::kCall,
     "oxEvent sink reload failed",
     {OXEVENT_FAILURE, OXEVENT_INVALID_ARGUMENT},
     "A sink could not be opened during oxEventReloadConfig, and there was no memory for the text that says why. The "
     "old "
     "settings stay in force.",
     "See to memory (free -m, memory.max of the control group), then reload again: the text then names the culprit."},
    {kWindowsInstallFailed,
     Met::kCall,
     "Windows Event Log source installation failed",
     {OXEVENT_NOT_FOUND},
     "The host called oxEventInstallWindowsEventSource, which does nothing on Linux, and there was no memory for the "
     "text that says so.",
     "None is needed: on Linux the sections sink\\native write to the system log without it."},
    {kWindowsRemoveFailed,
     Met::kCall,
     "Windows Event Log source removal failed",
     {OXEVENT_NOT_FOUND},
     "The host called oxEventRemoveWindowsEventSource, which does nothing on Linux, and there was no memory for the "
     "text "
     "that says so.",
     "None is needed: there is no event source to remove on Linux."},

    {kNoConfigPath,
     Met::kCall,
     "oxEvent requires a oxCFG XML config path",
     {OXEVENT_INVALID_ARGUMENT},
     "The host gave oxEventInitialize no path of a settings file, or called oxEventReloadConfig without one when there "
     "was none to remember: before a successful oxEventInitialize, or after oxEventShutdown.",
     "Give the host the path of the settings file, on its command line or wherever it takes it from."},
    {kConfigUnreadable,
     Met::kCall,
     "Unable to open oxEvent config: {path}",
     {OXEVENT_INVALID_ARGUMENT},
     "The settings file is missing, cannot be read by the process's user, is no regular file, is over 64 MiB, or is no "
     "such XML file; or the process has no descriptor or no memory left. The file has not been changed.",
     "Look with namei -l PATH whether the file is there and the process's user may read it, and with oxevent-check "
     "PATH where it is not such XML; its root element is config. A relative path counts from the process's working "
     "folder. An empty file will do: the library completes it. Of a running process look at its descriptors too: ls "
     "/proc/PID/fd | wc -l and /proc/PID/limits."},
    {kNotAboveZero,
     Met::kCall,
     "{setting} must be greater than zero",
     {OXEVENT_INVALID_ARGUMENT},
     "The setting QVX\\Events\\core\\queue_size is 0.",
     "Set it to a number above 0, 1024 by default, or remove the value: the library puts its default there."},
    {kBadDropPolicy,
     Met::kCall,
     "Invalid drop_policy value for {key}\\drop_policy: {value}",
     {OXEVENT_INVALID_ARGUMENT},
     "The setting has a value that is none of its words.",
     "Set it to drop_newest or drop_debug_info_first, or remove the value: the library puts its default there."},
    {kBadSwitch,
     Met::kCall,
     "Invalid boolean value for {key}\\{name}: {value}",
     {OXEVENT_INVALID_ARGUMENT},
     "The switch has a value that is neither on nor off. Of several bad ones the text names the last.",
     "Set it to 1, true, yes, on or enabled, or to 0, false, no, off or disabled, without blanks around it; or remove "
     "the value: the library puts its default there."},
    {kBadSeverity,
     Met::kCall,
     "Invalid minimum_severity value for {key}\\minimum_severity: {value}",
     {OXEVENT_INVALID_ARGUMENT},
     "The setting has a value that is no severity. Of several bad ones the text names the last.",
     "Set it to debug, info, warning or error, or to 0 to 3, without blanks around it; or remove the value: the "
     "library "
     "puts info there."},

    {kCsvNoPath,
     Met::kCall,
     "oxEvent CSV sink path is empty",
     {OXEVENT_INVALID_ARGUMENT},
     "An enabled section below sink\\csv has an empty path.",
     "Set its path, or switch the section off: enabled 0."},
    {kCsvFolder,
     Met::kCall,
     "Unable to create directory for oxEvent CSV sink: {path}",
     {OXEVENT_FAILURE},
     "A folder on the way to the path of a CSV sink is missing and could not be created: the process's user may not "
     "write to the folder above, something else has the name, or the file system is full or read-only.",
     "Look with namei -l PATH how far the way is there and whose it is. Create the folder for the process's user, or "
     "change the path in the section below sink\\csv; a relative path counts from the process's working folder."},
    {kCsvOpen,
     Met::kCall,
     "Unable to open oxEvent CSV file for append: {path}",
     {OXEVENT_FAILURE},
     "The file of a CSV sink cannot be opened: the process's user may not write to it or to its folder, it is a "
     "folder, "
     "a pipe without a reader, or on a read-only file system, or the process has no descriptor left.",
     "Look with namei -l PATH at the rights, and with ls /proc/PID/fd | wc -l and /proc/PID/limits at the descriptors. "
     "Give the process's user the right to write, or change the path in the section below sink\\csv."},
    {kCsvHeader,
     Met::kCall,
     "Unable to write oxEvent CSV header: {path}",
     {OXEVENT_FAILURE},
     "The file of a CSV sink could be opened but not written: the disk or the quota is full, the process's limit for "
     "files is reached, or it is a pipe that has been full for 1 s.",
     "Look with df -h PATH and df -i PATH at the room, at the quota, and at the file size in /proc/PID/limits. Make "
     "room, "
     "or change the path in the section below sink\\csv."},
    {kNativeNoMemory,
     Met::kCall,
     "Unable to allocate oxEvent native log handle",
     {OXEVENT_FAILURE},
     "There was no memory to open the system log.",
     "See to memory (free -m, memory.max of the control group), then start or reload again."},
    {kSyslogResolve,
     Met::kCall,
     "oxEvent syslog UDP resolve failed for {host}:{port} error={number}",
     {OXEVENT_FAILURE},
     "The host of an enabled section below sink\\syslog\\udp was not found when the settings were loaded.",
     "Try getent ahosts HOST on that machine, as the process's user, and correct host or port, or give an address "
     "instead of a name. The number is getaddrinfo's: -2 and -5 there is no such name or it has no address, -3 the "
     "name "
     "server does not answer (try again), -4 it refuses, -8 the port is above 65535, -10 no memory, -11 a failure of "
     "the "
     "system."},
    {kSyslogSocket,
     Met::kCall,
     "oxEvent syslog UDP socket creation failed for {host}:{port} error={number}",
     {OXEVENT_FAILURE},
     "The collector's name was found, but the system gave no UDP socket for any of its addresses.",
     "The number is errno's: 24 the process and 23 the system has too many open files (ls /proc/PID/fd, "
     "/proc/PID/limits), "
     "97 the system lacks the kind of address (IPv6 switched off: give an IPv4 address), 1 and 13 sockets are "
     "forbidden "
     "to the process (its sandbox), 12 and 105 no memory."},
    {kWebhookUrl,
     Met::kCall,
     "oxEvent webhook sink requires an http:// or https:// endpoint_url",
     {OXEVENT_INVALID_ARGUMENT},
     "An enabled section below sink\\webhook\\http or sink\\cloudevents\\http has an endpoint_url that is empty or of "
     "another kind.",
     "Set its endpoint_url, beginning with http:// or https://, or switch the section off: enabled 0."},
    {kWebhookPayloadMode,
     Met::kCall,
     "oxEvent webhook payload_mode must be native_json or cloudevents",
     {OXEVENT_INVALID_ARGUMENT},
     "An enabled section below sink\\webhook\\http has another payload_mode.",
     "Set it to native_json or cloudevents, without blanks around it."},
    {kWebhookEnvironment,
     Met::kCall,
     "oxEvent webhook sink cannot start with {variable} in the environment of a privileged process",
     {OXEVENT_FAILURE},
     "The process has rights that its caller lacks (a set-uid or set-gid program, or one with file capabilities), and "
     "the caller has set a variable that steers the HTTP client: SSLKEYLOGFILE would have TLS session keys written to "
     "a "
     "file of the caller's choice.",
     "Start the program without the variable: unset it in the service or shell that starts it, or switch the sections "
     "below sink\\webhook\\http and sink\\cloudevents\\http off: enabled 0."},
    {kSnmpVersion3,
     Met::kCall,
     "SNMPv3 requires a future external-library backend",
     {OXEVENT_INVALID_ARGUMENT},
     "An enabled section below sink\\snmp\\trap asks for version 3, which the library does not speak.",
     "Set version to 2c, or switch the section off: enabled 0. To reach a manager that takes version 3 alone, let a "
     "trap "
     "daemon on the machine forward the traps."},
    {kSnmpVersion,
     Met::kCall,
     "oxEvent SNMP trap sink currently supports SNMP v2c only",
     {OXEVENT_INVALID_ARGUMENT},
     "An enabled section below sink\\snmp\\trap has another version, or an empty one.",
     "Set version to 2c, or switch the section off: enabled 0."},
    {kSnmpResolve,
     Met::kCall,
     "oxEvent SNMP trap resolve failed for {host}:{port} error={number}",
     {OXEVENT_FAILURE},
     "The host of an enabled section below sink\\snmp\\trap was not found when the settings were loaded.",
     "Try getent ahosts HOST on that machine, as the process's user, and correct host or port, or give an address "
     "instead of a name. The number is getaddrinfo's: -2 and -5 there is no such name or it has no address, -3 the "
     "name "
     "server does not answer (try again), -4 it refuses, -8 the port is above 65535, -10 no memory, -11 a failure of "
     "the "
     "system."},
    {kSnmpSocket,
     Met::kCall,
     "oxEvent SNMP trap socket creation failed for {host}:{port} error={number}",
     {OXEVENT_FAILURE},
     "The manager's name was found, but the system gave no UDP socket for any of its addresses.",
     "The number is errno's: 24 the process and 23 the system has too many open files (ls /proc/PID/fd, "
     "/proc/PID/limits), "
     "97 the system lacks the kind of address (IPv6 switched off: give an IPv4 address), 1 and 13 sockets are "
     "forbidden "
     "to the process (its sandbox), 12 and 105 no memory."},

    {kSinkFailed,
     Met::kDelivery,
     "oxEvent sink failed",
     {OXEVENT_FAILURE},
     "The process is the child of a fork that found a line to the system log half written: a section sink\\native "
     "cannot "
     "be used there.",
     "Let such a child replace itself by exec, or switch the sections sink\\native off in its settings."},
    {kSinkThrew,
     Met::kDelivery,
     "oxEvent sink failed: {what}",
     {OXEVENT_FAILURE},
     "A sink could not finish what it had begun. std::bad_alloc: no memory. The event is lost there; the next is tried "
     "anew.",
     "Look at the limits of the process in /proc/PID/limits and of its control group (memory.max), and at the system's "
     "memory: free -m."},
    {kSinkThrewUnknown,
     Met::kDelivery,
     "oxEvent sink failed with an unknown exception",
     {OXEVENT_FAILURE},
     "Code of the host's that ran within a sink, such as an operator new of its own, has thrown what is no "
     "std::exception. The event is lost there; the next is tried anew.",
     "Correct the host: an operator new may throw std::bad_alloc alone."},
    {kCallbackThrew,
     Met::kDelivery,
     "oxEvent callback {id} threw",
     {OXEVENT_FAILURE},
     "A callback of the host's ended with a C++ exception. The other callbacks got the event.",
     "Correct the host: the callback, whose id oxEventRegisterCallback gave, has to catch its exceptions."},
    {kCsvRow,
     Met::kDelivery,
     "Unable to write oxEvent CSV row: {path}",
     {OXEVENT_FAILURE},
     "A write to the file of a CSV sink has failed, now or before: the disk or the quota is full, the process's limit "
     "for "
     "files is reached, or the device fails. The sink writes nothing more; the rows since the last good write are "
     "lost.",
     "Look with df -h PATH at the room, at the quota, at the file size in /proc/PID/limits and at dmesg. Once there is "
     "room, let the host call oxEventReloadConfig: the file is opened anew."},
    {kCsvRowFlush,
     Met::kDelivery,
     "Unable to flush oxEvent CSV row: {path}",
     {OXEVENT_FAILURE},
     "The row of an event could not be written to the file of a CSV sink with flush_each_event: the disk or the quota "
     "is "
     "full, the process's limit for files is reached, or the device fails. The sink writes nothing more.",
     "Look with df -h PATH at the room, at the quota, at the file size in /proc/PID/limits and at dmesg. Once there is "
     "room, let the host call oxEventReloadConfig: the file is opened anew."},
    {kCsvFileFlush,
     Met::kDelivery,
     "Unable to flush oxEvent CSV file: {path}",
     {OXEVENT_FAILURE},
     "Rows that a CSV sink buffered could not be written to its file, now or before: the disk or the quota is full, "
     "the "
     "process's limit for files is reached, or the device fails. The sink writes nothing more.",
     "Look with df -h PATH at the room, at the quota, at the file size in /proc/PID/limits and at dmesg. Once there is "
     "room, let the host call oxEventReloadConfig: the file is opened anew."},
    {kCsvBusy,
     Met::kDelivery,
     "A write takes too long to oxEvent CSV file: {path}",
     {OXEVENT_FAILURE},
     "The worker was still writing to the file of a CSV sink when the time of a flush, or the second that a reload "
     "waits, "
     "was up. The rows are written once that write ends.",
     "Look what the path is: a pipe needs a reader, a network file system its server. cat /proc/PID/task/*/wchan shows "
     "where the thread oxEvent waits. Else give oxEventFlush more time."},
    {kSyslogSend,
     Met::kDelivery,
     "oxEvent syslog UDP send failed to {host}:{port} error={number}",
     {OXEVENT_FAILURE},
     "The system did not take the datagram of an event for a collector below sink\\syslog\\udp. This event is lost "
     "there; "
     "the next is tried anew.",
     "The number is errno's: 101 and 113 there is no way to the collector (ip route get ADDRESS), 1 a packet filter of "
     "this machine refuses it (nft list ruleset), 13 the address is a broadcast address, 99 the machine has no address "
     "of its kind (IPv6 switched off: give an IPv4 address), 90 the datagram is too large, 9 and 88 the host has "
     "closed a descriptor that is the library's, 105 the network's queue is full."},
    {kWebhookPost,
     Met::kDelivery,
     "oxEvent webhook POST failed: {endpoint_url}",
     {OXEVENT_FAILURE},
     "The endpoint did not accept an event within request_timeout_ms (below sink\\cloudevents\\http: timeout_ms): its "
     "URL is malformed, its name was not found, there was no connection (within connect_timeout_ms), its certificate "
     "is not trusted, its answer was no 2xx, a header line's name holds what none may, or a "
     "token of the section holds a line end. After the last try the event is lost there; the next is tried anew. (With "
     "retry_count 4294967295 every event fails without a try and without a text.)",
     "Try curl -v --noproxy '*' -H 'Content-Type: application/json' -d '{}' URL on that machine, as the process's "
     "user, with the header lines and the token of the section. Where the endpoint is slow or away for moments, set "
     "connect_timeout_ms, request_timeout_ms, retry_count and backoff_ms."},
    {kSnmpTrapOid,
     Met::kDelivery,
     "Invalid SNMP trap_oid: {oid}",
     {OXEVENT_FAILURE},
     "The trap_oid of a section below sink\\snmp\\trap is no object identifier. No event goes out by this sink.",
     "Set trap_oid to numbers with one dot between two of them, at most 4294967295 each, without blanks or a leading "
     "dot, "
     "such as 1.3.6.1.4.1.32473.1.1.0.1; then let the host reload."},
    {kSnmpEnterpriseOid,
     Met::kDelivery,
     "Invalid SNMP enterprise_oid: {oid}",
     {OXEVENT_FAILURE},
     "The enterprise_oid of a section below sink\\snmp\\trap is no object identifier. No event goes out by this sink.",
     "Set enterprise_oid to numbers with one dot between two of them, at most 4294967295 each, without blanks or a "
     "leading "
     "dot, such as 1.3.6.1.4.1.32473.1.1; then let the host reload."},
    {kSnmpTooLong,
     Met::kDelivery,
     "oxEvent SNMP trap exceeds maximum datagram size",
     {OXEVENT_FAILURE},
     "The trap of an event is over 8192 bytes. The event's texts are cut, so that the settings make it so long. The "
     "event "
     "is lost there.",
     "Shorten community, enterprise_oid and trap_oid in the sections below sink\\snmp\\trap, then let the host "
     "reload."},
    {kSnmpSend,
     Met::kDelivery,
     "oxEvent SNMP trap send failed to {host}:{port} error={number}",
     {OXEVENT_FAILURE},
     "The system did not take the datagram of an event for a manager below sink\\snmp\\trap. This event is lost there; "
     "the "
     "next is tried anew.",
     "The number is errno's: 101 and 113 there is no way to the manager (ip route get ADDRESS), 1 a packet filter of "
     "this "
     "machine refuses it (nft list ruleset), 13 the address is a broadcast address, 99 the machine has no address of "
     "its kind (IPv6 switched off: give an IPv4 address), 90 the datagram is too large, 9 and 88 the host has closed a "
     "descriptor that is the library's, 105 the network's queue is full."},

    {kCallbackFailed,
     Met::kNever,
     "Callback registration failed",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kSinkShutdownFailed,
     Met::kNever,
     "oxEvent sink shutdown failed",
     {OXEVENT_FAILURE},
     kInternalCause,
     kInternalRemedy},
    {kConfigOutput,
     Met::kNever,
     "Invalid oxEventConfig output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kCsvOutput,
     Met::kNever,
     "Invalid oxEvent CSV sink output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kNativeOutput,
     Met::kNever,
     "Invalid oxEvent native sink output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kNativeHandleOutput,
     Met::kNever,
     "Invalid oxEvent native log handle output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kNativeHandle,
     Met::kNever,
     "Invalid oxEvent native log handle",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kSyslogOutput,
     Met::kNever,
     "Invalid oxEvent syslog UDP sink output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kWebhookOutput,
     Met::kNever,
     "Invalid oxEvent webhook sink output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kSnmpOutput,
     Met::kNever,
     "Invalid oxEvent SNMP trap sink output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
    {kAlertmanagerOutput,
     Met::kNever,
     "Invalid oxEvent Alertmanager sink output",
     {OXEVENT_INVALID_ARGUMENT},
     kInternalCause,
     kInternalRemedy},
};

// Every entry in its place, and whole.
consteval bool IsWhole() {
  if (std::size(kTable) != kCount) return false;
  for (size_t i = 0; i < kCount; ++i) {
    const Entry& entry = kTable[i];
    if (entry.id != i || entry.text.empty() || entry.codes[0] == OXEVENT_OK) return false;
    if (entry.cause.empty() || entry.remedy.empty()) return false;
    for (size_t j = 0; j < i; ++j) {
      if (kTable[j].text == entry.text) return false;
    }
  }
  return true;
}
static_assert(IsWhole());

}  // namespace oxEventErrors
