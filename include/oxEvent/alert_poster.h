/*
 * The alert poster of oxEvent: posts the events of a host as alerts to an Alertmanager, on a thread of its own, and
 * posts each active alert repeatedly, because an Alertmanager resolves an alert that is not posted again within its
 * resolve_timeout (5 minutes by default). Link the host with liboxevent-alertposter (-loxevent-alertposter, in CMake
 * oxEvent::alertposter).
 *
 * Every function may be called from any thread and from inside a callback. None lets a C++ exception escape. A function
 * returns one of the OXEVENT_ result codes of oxEvent.h. Strings are NUL-terminated UTF-8 and remain the caller's: the
 * library copies what it needs before a call returns. No function returns memory that the host must free.
 *
 * The process may exit with a running poster: a post in progress is completed, nothing more is posted. After fork, the
 * child has no poster, and may start its own. To unload this library while liboxEvent stays loaded, stop each poster,
 * then call oxEventFlush until it returns 0, then unload.
 */
#ifndef OXEVENT_ALERT_POSTER_H
#define OXEVENT_ALERT_POSTER_H

#include "../oxEvent.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Options of a poster. Set struct_size and url; everything else may stay zero. */
typedef struct oxEventAlertPosterConfig {
  uint32_t struct_size;         /* sizeof(oxEventAlertPosterConfig), as compiled into the caller. */
  uint32_t minimum_severity;    /* Events below it are not posted, except clears of active alerts. */
  const char* url;              /* Begins with http:// or https://, ends in /api/v2/alerts. Required. */
  const char* headers;          /* Lines "Name: value" separated by a byte 0xA7, such as an Authorization. */
  const char* alertname_prefix; /* Prefix of each alert's name. Default "OxEvent". */
  uint32_t conditions_only;     /* Not 0: events that belong to no condition are not posted. */
  uint32_t repeat_interval_ms;  /* Interval between two posts of an active alert. Must be well below the
                                   Alertmanager's resolve_timeout. 0: 60000. */
  uint32_t request_timeout_ms;  /* Time that a post may take. 0: 3000. */
  uint32_t stop_timeout_ms;     /* Time that oxEventAlertPosterStop may spend on posts. 0: 5000. */
  uint64_t max_bytes;           /* Memory for alerts and conditions. 0: 16 MiB, enough for about 15,000 alerts. */
} oxEventAlertPosterConfig;

/* What a poster has done. Set struct_size before the call. */
typedef struct oxEventAlertPosterState {
  uint32_t struct_size;     /* sizeof(oxEventAlertPosterState), as compiled into the caller. */
  int32_t last_status;      /* HTTP status of the last post; 0: there was no response, or no post yet. */
  uint64_t active_alerts;   /* Alerts that are posted repeatedly. */
  uint64_t unposted_alerts; /* Alerts whose latest state has not been posted yet. */
  uint64_t posted;          /* Alerts that the Alertmanager accepted, repetitions included. */
  uint64_t failed_posts;    /* Posts that failed and were or will be retried. */
  uint64_t refused;         /* Alerts that the Alertmanager refused as invalid. */
  uint64_t dropped;         /* Events that were not posted because max_bytes was reached. */
} oxEventAlertPosterState;

/*
 * Starts a poster: registers a callback with oxEventRegisterCallback and starts a thread. Call it before
 * oxEventInitialize, so that the poster gets every event; oxEventShutdown removes its callback, so each run of oxEvent
 * needs a new poster. For a cluster of Alertmanagers, start one poster for each: posters do not wait for each other.
 *
 * A raise, update or repeat activates the alert of its condition, a clear resolves it; the clear gets the labels of the
 * raise, without which the Alertmanager would not resolve the alert. The actions resolve and resolved count as clear. A
 * clear whose condition the poster does not know, for example because the process has been restarted, is posted once
 * with its own labels; so is an event that belongs to no condition. Neither is posted while an alert with the same
 * labels is active. If several conditions have the same labels, their alert is active until all are cleared.
 *
 * All alerts that wait are posted together. If a post fails, the poster waits for 1 s, after each further failure twice
 * as long, up to 30 s but no longer than repeat_interval_ms; when a post succeeds again, it also repeats each active
 * alert. Meanwhile it keeps only the latest state of each alert. If the Alertmanager refuses a post as invalid (status
 * 400, 413 or 422), its alerts are posted one by one, and one that is refused is counted.
 *
 * *id_out receives the id of the poster, which is never 0.
 *
 * OXEVENT_INVALID_ARGUMENT: config, url or id_out null, struct_size too small to include url, url does not begin with
 * http:// or https:// or does not end in /api/v2/alerts (a final slash, a query or a fragment is refused too), it has
 * no host, its port is 0 or above 65535, minimum_severity above error, or headers with a line end.
 * OXEVENT_NOT_INITIALIZED: the process is exiting. OXEVENT_FAILURE: the HTTP client (liboxutil-http.so) could not be
 * loaded, out of memory, or no thread could be started. The last error text does not give the reason.
 */
OXEVENT_API uint32_t oxEventAlertPosterStart(const oxEventAlertPosterConfig* config, uint32_t* id_out);

/*
 * Stops a poster: unregisters its callback, posts what waits, and each active alert once more, so that it stays active
 * for a whole resolve_timeout, and ends the thread. Posts at once, even if the poster was waiting after a failed post,
 * and retries after 1 s, 2 s and so on. Takes at most stop_timeout_ms and the rest of a post that is in progress at the
 * call. Call it after oxEventShutdown, so that the poster gets every event.
 *
 * *unposted, which may be null, receives the number of alerts whose latest state was not posted.
 *
 * OXEVENT_NOT_FOUND: no poster has this id, or another call is stopping it. Any result may change the last error text.
 */
OXEVENT_API uint32_t oxEventAlertPosterStop(uint32_t id, uint32_t* unposted);

/*
 * Gets the state of a poster.
 *
 * OXEVENT_INVALID_ARGUMENT: state null, or struct_size below 8. OXEVENT_NOT_FOUND: no poster has this id. A
 * failure does not set the last error text.
 */
OXEVENT_API uint32_t oxEventAlertPosterGetState(uint32_t id, oxEventAlertPosterState* state);

#ifdef __cplusplus
}

namespace oxEvent {

/* A poster that stops at the end of its scope, for C++17 and later. */
class AlertPoster {
 public:
  explicit AlertPoster(const oxEventAlertPosterConfig& config) noexcept
      : result_(oxEventAlertPosterStart(&config, &id_)) {}
  ~AlertPoster() { Stop(); }
  AlertPoster(const AlertPoster&) = delete;
  AlertPoster& operator=(const AlertPoster&) = delete;

  /* Result of the start. */
  uint32_t Result() const noexcept { return result_; }
  /* Returns the number of alerts whose latest state was not posted. */
  uint32_t Stop() noexcept {
    uint32_t unposted = 0;
    oxEventAlertPosterStop(id_, &unposted);
    return unposted;
  }
  oxEventAlertPosterState State() const noexcept {
    oxEventAlertPosterState state = {};
    state.struct_size = sizeof(state);
    oxEventAlertPosterGetState(id_, &state);
    return state;
  }

 private:
  uint32_t id_ = 0; /* Before result_, whose initializer sets it. */
  uint32_t result_ = OXEVENT_OK;
};

}  // namespace oxEvent
#endif

#endif
