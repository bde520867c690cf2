/*
 * oxEvent: operational events (alarms, state changes, notices) from a host application to its logs and monitoring.
 *
 * Every function may be called from any thread, from inside a callback too. None lets a C++ exception escape. Unless
 * said otherwise each returns one of the OXEVENT_ result codes; a failure leaves a text for oxEventGetLastError on the
 * calling thread, a success clears it. Texts are NUL-terminated UTF-8 and stay the caller's: the library copies what
 * it needs before a call returns and frees nothing of the host's.
 *
 * fork: the child starts out uninitialized, as after load, and may call oxEventInitialize for itself.
 * pthread_cancel: ends oxEventFlush while it waits; any other call ends first.
 */
#ifndef OXEVENT_H
#define OXEVENT_H

#include <stdint.h>

#ifdef __cplusplus
#include <string>
#endif

#if defined(__GNUC__)
#define OXEVENT_API __attribute__((visibility("default")))
#else
#define OXEVENT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The version that oxEventRecord::version must carry. */
#define OXEVENT_API_VERSION 0x00010000u

/* Result codes. */
#define OXEVENT_OK 0u                           /* Success. */
#define OXEVENT_NOT_INITIALIZED 0x80050001u     /* Not initialized, not running, or stopping. */
#define OXEVENT_ALREADY_INITIALIZED 0x80050002u /* Already initialized, or a shutdown is still under way. */
#define OXEVENT_INVALID_ARGUMENT 0x80050003u    /* An argument, a record or a settings file that is refused. */
#define OXEVENT_NOT_FOUND 0x80050004u           /* No such callback; not available on this platform. */
#define OXEVENT_FAILURE 0x80050005u             /* A time-out, a sink that failed, memory exhausted. */

/* Severities: a larger value is more severe. */
#define OXEVENT_SEVERITY_DEBUG 0u   /* In syslog: 7, debug. */
#define OXEVENT_SEVERITY_INFO 1u    /* In syslog: 6, informational. */
#define OXEVENT_SEVERITY_WARNING 2u /* In syslog: 4, warning. */
#define OXEVENT_SEVERITY_ERROR 3u   /* In syslog: 3, error. */

/*
 * One event. Set struct_size to sizeof(oxEventRecord), version to OXEVENT_API_VERSION and message to a text that is not
 * empty; everything else may stay zero. A null text counts as not given and takes its default, an empty one is kept.
 *
 * Hosts built against a shorter record keep working: fields that do not lie wholly within struct_size count as not
 * given. At least the first 48 bytes (up to message) are needed.
 */
typedef struct oxEventRecord {
  uint32_t struct_size;       /* Bytes of this record as the caller built it. */
  uint32_t version;           /* OXEVENT_API_VERSION. */
  uint64_t event_id;          /* 0: the library assigns the next id of this process. */
  const char* event_type;     /* Kind of event. Default "event". */
  const char* source_id;      /* Identifier of what reports. Default empty. */
  const char* source_name;    /* Its display name. Default "oxEvent". */
  const char* message;        /* Text for people. Required, not empty. */
  uint32_t severity;          /* OXEVENT_SEVERITY_…; larger is refused. Info where the record ends before. */
  const char* action;         /* "raise", "update", "repeat" or "clear" of a condition; others pass as they are. */
  const char* dedupe_key;     /* Names the condition. Empty: source_id ":" event_type. */
  const char* correlation_id; /* Default empty. */
  uint64_t utc_ns;            /* Nanoseconds since 1970-01-01T00:00:00Z. 0: now. */
  uint64_t ptp_ns;            /* PTP time in nanoseconds. 0: now. */
  int64_t pts;                /* Media presentation time stamp, in the host's units; 0 is a time stamp too. */
  const char* timecode;       /* Default empty. */
  double value;               /* What was measured. */
  double threshold;           /* What it was compared with. */
  const char* units;          /* Units of value and threshold. Default empty. */
  uint64_t duration_ms;       /* Milliseconds. */
  const char* details_json;   /* A JSON object as text, passed on unread. Default "{}". */
} oxEventRecord;

/*
 * Receives every event that reaches the sinks, on the library's worker thread, one at a time. The record and its texts
 * are valid during the call only. A C++ callback that throws counts as a failed sink for that event. It may call any
 * function of this header; oxEventFlush and oxEventShutdown tell what is particular there.
 */
typedef void (*oxEventCallback)(const oxEventRecord* event, void* user_data);

/*
 * Loads the settings file and starts the library: opens the enabled sinks and starts the worker thread.
 *
 * config_path names an existing XML settings file (an empty file will do); settings that it lacks are added to it with
 * their defaults. Reading it, and resolving the names of hosts in it, may take a while. A full disk does not keep the
 * library from starting: a CSV file that has no space for its header gets it with its first rows. Needs a stack of
 * 64 KiB, as oxEventReloadConfig does.
 *
 * OXEVENT_INVALID_ARGUMENT: path null or empty, file unreadable, a setting refused (the text says why).
 * OXEVENT_ALREADY_INITIALIZED: initialized before, or another thread's oxEventShutdown has not returned yet.
 * OXEVENT_NOT_INITIALIZED: the process is exiting.
 * OXEVENT_FAILURE: a sink could not be opened, no memory, no thread. After a failure nothing runs; one that comes after
 * the sinks were opened forgets the callbacks, as a shutdown does.
 */
OXEVENT_API uint32_t oxEventInitialize(const char* config_path);

/*
 * Stops the library: delivers what is queued for at most 5000 ms, discards the rest, waits for the event that is being
 * delivered, closes the sinks and forgets the callbacks. Rows that a CSV sink buffers are written before each wait.
 * oxEventInitialize may follow.
 *
 * From a callback: discards what is queued and returns; the worker ends when the callback returns.
 *
 * OXEVENT_NOT_INITIALIZED; OXEVENT_FAILURE: the time was up (what was still queued is discarded), or a sink could not
 * be flushed. The library is shut down all the same.
 */
OXEVENT_API uint32_t oxEventShutdown(void);

/*
 * Reports one event: checks and copies the record and queues it. Never waits for a sink, a file or the network, and
 * draws an event id in any case. Success means accepted: an event below the minimum severity, or one that finds the
 * queue full, is dropped and counted.
 *
 * OXEVENT_INVALID_ARGUMENT: record null, shorter than 48 bytes, of another version, without a message, or of a severity
 * above error. OXEVENT_NOT_INITIALIZED. OXEVENT_FAILURE: no memory for the copy.
 */
OXEVENT_API uint32_t oxEventSubmit(const oxEventRecord* record);

/*
 * Reports an event of type "simple", as oxEventSubmit does. event_id 0: the library assigns one. source_name null:
 * "oxEvent".
 *
 * OXEVENT_INVALID_ARGUMENT: message null or empty, or a severity above error. OXEVENT_NOT_INITIALIZED. OXEVENT_FAILURE:
 * no memory for the copy.
 */
OXEVENT_API uint32_t oxEventSubmitSimple(uint32_t event_id, uint32_t severity, const char* source_name,
                                         const char* message);

/*
 * Waits until all queued events are delivered, at most timeout_ms milliseconds (0: without limit), then flushes the
 * sinks, which get the same time again. Only a write to a CSV file that hangs, as one to a pipe that nobody reads, may
 * take longer.
 *
 * From a callback it does not wait, since nobody else could deliver: with events queued it fails at once.
 *
 * OXEVENT_NOT_INITIALIZED; OXEVENT_FAILURE: the time was up, or a sink could not be flushed, or a sink that a reload
 * replaced has lost rows, which is reported once.
 */
OXEVENT_API uint32_t oxEventFlush(uint32_t timeout_ms);

/*
 * Loads the settings anew and puts them into force; raised conditions and callbacks stay, and of the queued events as
 * many as the new queue_size holds. config_path null or empty: the file of the last successful oxEventInitialize or
 * oxEventReloadConfig. Reloads wait for one another; oxEventShutdown does not wait for one that is still resolving the
 * names of hosts, which then changes nothing.
 *
 * OXEVENT_INVALID_ARGUMENT, OXEVENT_FAILURE: as oxEventInitialize; the old settings then stay in force.
 * OXEVENT_NOT_INITIALIZED: also when the library was shut down meanwhile, even if it is initialized again.
 */
OXEVENT_API uint32_t oxEventReloadConfig(const char* config_path);

/*
 * Registers a callback, before oxEventInitialize too; it stays until it is unregistered or the library is shut down.
 * user_data is handed to each call, may be null and is never dereferenced. *id_out receives the id, never 0. The same
 * callback may be registered several times.
 *
 * OXEVENT_INVALID_ARGUMENT: callback or id_out null.
 */
OXEVENT_API uint32_t oxEventRegisterCallback(oxEventCallback callback, void* user_data, uint32_t* id_out);

/*
 * Removes a callback. An event in delivery at that moment may still reach it, so user_data may be freed
 * - from inside a callback: at once, by the callback itself when it no longer uses it;
 * - on any other thread: once an oxEventFlush that was called after this has returned 0, or once an oxEventShutdown
 *   that was called on a thread of the host's has returned.
 * After an oxEventShutdown inside a callback, the callbacks behind that one still receive its event: keep their
 * user_data until the callback has returned and its thread has ended.
 *
 * OXEVENT_NOT_FOUND: no callback has this id.
 */
OXEVENT_API uint32_t oxEventUnregisterCallback(uint32_t id);

/*
 * Copies the calling thread's last error text, cut to buffer_size - 1 bytes and always terminated; the text is empty
 * after a success. Reading does not clear it.
 *
 * OXEVENT_INVALID_ARGUMENT: buffer null or buffer_size 0.
 */
OXEVENT_API uint32_t oxEventGetLastError(char* buffer, uint32_t buffer_size);

/* Returns OXEVENT_API_VERSION of the library, not a result code. Touches no state. */
OXEVENT_API uint32_t oxEventGetApiVersion(void);

/*
 * Registers a source of the Windows event log.
 *
 * OXEVENT_NOT_FOUND: always, on Linux.
 */
OXEVENT_API uint32_t oxEventInstallWindowsEventSource(const char* source_name, const char* message_file);

/*
 * Removes a source of the Windows event log.
 *
 * OXEVENT_NOT_FOUND: always, on Linux.
 */
OXEVENT_API uint32_t oxEventRemoveWindowsEventSource(const char* source_name);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
/* Only for the std::string that the library is built with: that of libstdc++ with its C++11 ABI. */
#if defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI

/* Options for oxEventFormatAlertmanagerRecord. */
struct oxEventAlertmanagerFormatterConfig {
  bool send_resolved = true;                /* False: an event that ends a condition gives the empty list "[]". */
  bool allow_source_label = false;          /* True: source_id becomes a label, and so part of the alert's identity. */
  std::string alertname_prefix = "OxEvent"; /* Begins the alert's name; of it letters, digits and "_" are
                                               used. None: "OxEvent". */
};

/*
 * Formats a record as an Alertmanager document (API version 2, POST /api/v2/alerts): a list of one alert, in *out,
 * which is the caller's. An event whose action is "clear", "resolve" or "resolved" ends the alert that has the same
 * severity, type and, where it is a label, source. A record without event_id gets its struct_size for one; in a
 * callback it has its own. Needs no oxEventInitialize.
 *
 * OXEVENT_INVALID_ARGUMENT: record or out null, or a record that oxEventSubmit would refuse. OXEVENT_FAILURE: no
 * memory; this alone touches the thread's last error. After a failure *out is as it was.
 */
extern "C" OXEVENT_API uint32_t oxEventFormatAlertmanagerRecord(const oxEventRecord* record,
                                                                const oxEventAlertmanagerFormatterConfig& config,
                                                                std::string* out);

#endif
#endif

#endif
