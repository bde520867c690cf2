/*
 * Delivers a host's events to an Alertmanager: oxEvent formats the documents, the host posts them. What a host copies
 * into its own program. The functions are for one thread; errors are told on stderr.
 */
#ifndef ALERT_POSTER_H
#define ALERT_POSTER_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct AlertPoster AlertPoster;

/* Registers with oxEvent, before oxEventInitialize. `url` ends in /api/v2/alerts. Null: it cannot be done. For a
 * cluster of Alertmanagers start one for each: none waits for another. */
AlertPoster* AlertPosterStart(const char* url);

/* After oxEventShutdown: posts what is still to be posted, for 5 s at most. Returns how many documents were left; 0 is
 * success. */
unsigned AlertPosterStop(AlertPoster* poster);

#ifdef __cplusplus
}
#endif

#endif
