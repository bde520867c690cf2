/*
 * oxEvent: reports operational events (alarms, state changes, notices) of a host application to its logs and
 * monitoring.
 *
 * Every function may be called from any thread and from inside a callback. None lets a C++ exception escape. Unless
 * stated otherwise, a function returns one of the OXEVENT_ result codes; a failure sets the calling thread's last error
 * text (oxEventGetLastError), a success clears it. Strings are NUL-terminated UTF-8 and remain the caller's: the
 * library copies what it needs before a call returns. No function returns memory that the host must free.
 *
 * After fork, the library is uninitialized and has no callbacks in the child, which may call oxEventInitialize itself.
 * No function may be called in a signal handler. pthread_cancel interrupts oxEventFlush while it waits; every other
 * call completes first.
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

/* Required value of oxEventRecord::version. */
#define OXEVENT_API_VERSION 0x00010000u

/* Result codes. */
#define OXEVENT_OK 0u                           /* Success. */
#define OXEVENT_NOT_INITIALIZED 0x80050001u     /* Not initialized, shutting down, or the process is exiting. */
#define OXEVENT_ALREADY_INITIALIZED 0x80050002u /* Already initialized, or still shutting down. */
#define OXEVENT_INVALID_ARGUMENT 0x80050003u    /* Invalid argument, record or settings file. */
#define OXEVENT_NOT_FOUND 0x80050004u           /* Unknown callback id; function not available on this platform. */
#define OXEVENT_FAILURE 0x80050005u             /* Timeout, failed sink, no memory or thread. */

/* Severities: a larger value is more severe, and there is none above error. */
#define OXEVENT_SEVERITY_DEBUG 0u   /* Syslog severity 7, debug. */
#define OXEVENT_SEVERITY_INFO 1u    /* Syslog severity 6, informational. */
#define OXEVENT_SEVERITY_WARNING 2u /* Syslog severity 4, warning. */
#define OXEVENT_SEVERITY_ERROR 3u   /* Syslog severity 3, error. */

/*
 * One event. Set struct_size to sizeof(oxEventRecord), version to OXEVENT_API_VERSION and message to a non-empty
 * string; everything else may stay zero (severity 0 is debug). A null string means the default; an empty one is kept.
 * The repeat interval of a condition is measured by the utc_ns of its events.
 *
 * Hosts built against a shorter record keep working: a field that is not wholly within struct_size takes its default.
 * At least the first 48 bytes (up to and including message) are required.
 */
typedef struct oxEventRecord {
  uint32_t struct_size;       /* sizeof(oxEventRecord), as compiled into the caller. */
  uint32_t version;           /* OXEVENT_API_VERSION. */
  uint64_t event_id;          /* 0: the library assigns the next id of this process. */
  const char* event_type;     /* Kind of event. Default "event". */
  const char* source_id;      /* Identifies the source of the event. Default empty. */
  const char* source_name;    /* Display name of the source. Default "oxEvent". */
  const char* message;        /* Human-readable message. Required, not empty. */
  uint32_t severity;          /* OXEVENT_SEVERITY_…; larger values are refused. Info if struct_size excludes it. */
  const char* action;         /* "raise", "update", "repeat" or "clear" a condition, in any letter case. Events with
                                 another action pass unchanged. Default empty. */
  const char* dedupe_key;     /* Identifies the condition. Default: source_id, a colon and event_type. */
  const char* correlation_id; /* Default empty. */
  uint64_t utc_ns;            /* UTC time in nanoseconds since 1970-01-01T00:00:00Z. 0: now. */
  uint64_t ptp_ns;            /* PTP time in nanoseconds. 0: now, in UTC. */
  int64_t pts;                /* Media presentation timestamp in units of the host; 0 is a valid timestamp. */
  const char* timecode;       /* Default empty. */
  double value;               /* Measured value. */
  double threshold;           /* Threshold that value was compared with. */
  const char* units;          /* Unit of value and threshold. Default empty. */
  uint64_t duration_ms;       /* Duration in milliseconds. */
  const char* details_json;   /* JSON object, passed on without being parsed. Default "{}". */
} oxEventRecord;

/*
 * Receives every event that reaches the sinks, on the library's worker thread, one event at a time. The record and its
 * strings are valid only during the call. A C++ callback that throws counts as a failed sink for that event. A callback
 * may call any function of the library; see oxEventFlush and oxEventShutdown for what these do inside a callback.
 * A callback must not unload the library, and must not end the worker thread, whether by pthread_exit(3) or by
 * enabling and requesting its cancellation. While a callback blocks, no sink receives another event. If a callback
 * forks and returns in the child, the child's thread ends.
 */
typedef void (*oxEventCallback)(const oxEventRecord* event, void* user_data);

/*
 * Loads the settings file and starts the library: opens the enabled sinks and starts the worker thread.
 *
 * config_path names an existing XML settings file, which may be empty. The library adds each missing setting whose
 * default is not empty; if it cannot write the file, it starts nevertheless. Reading the file and resolving the hosts
 * of syslog and SNMP sinks may take a while. A full disk does not prevent the start: if there is no space for the
 * header of a CSV file, the header is written with the first rows. Needs 64 KiB of stack, as oxEventReloadConfig does.
 *
 * A call that fails starts nothing and does not affect a library that is already running, but may have added settings
 * to the file. If it fails after opening the sinks, it removes all callbacks, as oxEventShutdown does.
 *
 * OXEVENT_INVALID_ARGUMENT: config_path null or empty, file unreadable, or invalid setting (the error text says which).
 * OXEVENT_ALREADY_INITIALIZED: the library is initialized, or oxEventShutdown has not returned yet on another thread.
 * OXEVENT_NOT_INITIALIZED: the process is exiting.
 * OXEVENT_FAILURE: a sink or the worker thread could not be started, or out of memory.
 */
OXEVENT_API uint32_t oxEventInitialize(const char* config_path);

/*
 * Stops the library: delivers queued events for at most 5000 ms, discards the rest, waits for the event that is being
 * delivered, closes the sinks and removes all callbacks. CSV sinks write their buffered rows about every 500 ms while
 * events are delivered, and again before this call waits for the event in delivery. oxEventInitialize may be called
 * afterwards.
 *
 * Inside a callback it discards the queued events and waits for no delivery; the worker thread ends once the current
 * event is delivered.
 *
 * OXEVENT_NOT_INITIALIZED. OXEVENT_FAILURE: not all queued events were delivered in time, or a sink could not be
 * flushed. The library is shut down nevertheless.
 */
OXEVENT_API uint32_t oxEventShutdown(void);

/*
 * Reports one event: validates and copies the record and queues it. Never waits for a sink, a file or the network.
 * Success does not mean that the event will be delivered: an event below the minimum severity is dropped and counted,
 * and so is every event while the settings disable the library. If the queue is full, the setting drop_policy decides
 * whether this event or an older one is dropped and counted. Each call uses up one event id, even if it fails or the
 * record has an event_id of its own.
 *
 * OXEVENT_INVALID_ARGUMENT: record null, struct_size below 48, wrong version, message null or empty, or severity above
 * error. OXEVENT_NOT_INITIALIZED. OXEVENT_FAILURE: out of memory for the copy.
 */
OXEVENT_API uint32_t oxEventSubmit(const oxEventRecord* record);

/*
 * Reports an event of type "simple", as oxEventSubmit does. event_id 0: the library assigns one. source_name null:
 * "oxEvent".
 *
 * OXEVENT_INVALID_ARGUMENT: message null or empty, or severity above error. OXEVENT_NOT_INITIALIZED. OXEVENT_FAILURE:
 * out of memory for the copy.
 */
OXEVENT_API uint32_t oxEventSubmitSimple(uint32_t event_id, uint32_t severity, const char* source_name,
                                         const char* message);

/*
 * Waits until no event is queued or being delivered (events that other threads report in the meantime included), at
 * most timeout_ms milliseconds (0: no limit), then flushes each sink with a timeout of the same length. The flush of a
 * sink takes longer only if its own write to a CSV file blocks, for example because the file is a pipe that nobody
 * reads.
 *
 * Inside a callback it does not wait, because the calling thread is the one that delivers: it fails immediately if
 * events are queued, otherwise it flushes the sinks.
 *
 * OXEVENT_NOT_INITIALIZED. OXEVENT_FAILURE: timeout, a sink could not be flushed, or a sink replaced by a reload has
 * lost rows (reported once).
 */
OXEVENT_API uint32_t oxEventFlush(uint32_t timeout_ms);

/*
 * Reloads the settings and applies them. Raised conditions and callbacks are kept, and so are as many queued events as
 * the new queue_size allows; they go to the new sinks, and are not checked against the new values of enabled and
 * minimum_severity in the section core. config_path null or empty: the file of the last successful oxEventInitialize or
 * oxEventReloadConfig. Concurrent reloads run one after another. oxEventShutdown does not wait for a reload that is
 * still reading the file or resolving host names; that reload then applies nothing.
 *
 * OXEVENT_INVALID_ARGUMENT, OXEVENT_FAILURE: as for oxEventInitialize; the previous settings stay in effect. A null or
 * empty config_path is invalid only if the library is not initialized.
 * OXEVENT_NOT_INITIALIZED: the library is not initialized, or was shut down during the call, even if it has been
 * initialized again since.
 */
OXEVENT_API uint32_t oxEventReloadConfig(const char* config_path);

/*
 * Registers a callback. Allowed before oxEventInitialize; the callback stays registered until it is unregistered, the
 * library is shut down, or oxEventInitialize fails after opening the sinks. user_data, which may be null, is passed to
 * each call and never dereferenced. *id_out receives the id, which is never 0. The same callback may be registered
 * several times.
 *
 * OXEVENT_INVALID_ARGUMENT: callback or id_out null. OXEVENT_FAILURE: out of memory.
 */
OXEVENT_API uint32_t oxEventRegisterCallback(oxEventCallback callback, void* user_data, uint32_t* id_out);

/*
 * Removes a callback. An event that is being delivered at that moment may still reach it. After a call inside a
 * callback, user_data may be freed immediately; a callback that removes itself may free its user_data once it no longer
 * uses it. After a call on any other thread, user_data may be freed once a subsequent oxEventFlush has returned 0, or
 * an oxEventShutdown that was not called inside a callback has returned.
 *
 * When oxEventShutdown is called inside a callback, the callbacks registered after that one still receive the current
 * event: keep their user_data until the library is unloaded or the process ends.
 *
 * OXEVENT_NOT_FOUND: no callback has this id.
 */
OXEVENT_API uint32_t oxEventUnregisterCallback(uint32_t id);

/*
 * Copies the calling thread's last error text into buffer, truncated to buffer_size - 1 bytes (which may split a UTF-8
 * character) and always NUL-terminated. After a success the text is empty. Reading does not clear it.
 *
 * OXEVENT_INVALID_ARGUMENT: buffer null or buffer_size 0.
 */
OXEVENT_API uint32_t oxEventGetLastError(char* buffer, uint32_t buffer_size);

/* Returns the OXEVENT_API_VERSION of the loaded library, not a result code. Does not change the last error text. */
OXEVENT_API uint32_t oxEventGetApiVersion(void);

/*
 * Registers a source of the Windows event log. Both arguments are ignored.
 *
 * OXEVENT_NOT_FOUND: always on Linux.
 */
OXEVENT_API uint32_t oxEventInstallWindowsEventSource(const char* source_name, const char* message_file);

/*
 * Removes a source of the Windows event log. The argument is ignored.
 *
 * OXEVENT_NOT_FOUND: always on Linux.
 */
OXEVENT_API uint32_t oxEventRemoveWindowsEventSource(const char* source_name);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
/* Declared only if std::string is the type that the library was built with: libstdc++'s, with the C++11 ABI. */
#if defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI

/* Options for oxEventFormatAlertmanagerRecord. */
struct oxEventAlertmanagerFormatterConfig {
  bool send_resolved = true;                /* False: an event that ends a condition gives the empty list "[]". */
  bool allow_source_label = false;          /* True: source_id becomes a label and thus part of the alert's identity. */
  std::string alertname_prefix = "OxEvent"; /* Prefix of the alert's name; characters other than letters, digits and
                                               "_" are removed. If nothing is left: "OxEvent". */
};

/*
 * Formats a record as an Alertmanager document: a list of one alert for POST /api/v2/alerts, stored in *out. An event
 * whose action is "clear", "resolve" or "resolved" resolves the alert that has the same severity, event type and, if it
 * is a label, source_id. If event_id is 0, the annotation ox_event_id shows the record's struct_size, because
 * formatting uses up no id. In a callback, event_id is never 0. Works without oxEventInitialize.
 *
 * OXEVENT_INVALID_ARGUMENT: record or out null, or a record that oxEventSubmit would refuse. OXEVENT_FAILURE: out of
 * memory; no other result changes the last error text. After a failure *out is unchanged.
 */
extern "C" OXEVENT_API uint32_t oxEventFormatAlertmanagerRecord(const oxEventRecord* record,
                                                                const oxEventAlertmanagerFormatterConfig& config,
                                                                std::string* out);

#endif
#endif

#endif
