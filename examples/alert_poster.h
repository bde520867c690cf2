/*
 * Posts a host's events to an Alertmanager: oxEvent formats the documents, the host posts them. Hosts copy this into
 * their own program. It needs C++20 and the companion library (-loxutil). Call the functions from one thread; errors
 * are printed to stderr.
 */
#ifndef ALERT_POSTER_H
#define ALERT_POSTER_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct AlertPoster AlertPoster;

/* Registers a callback with oxEvent; call it before oxEventInitialize. `url` ends in /api/v2/alerts. Returns null on
 * failure. For a cluster of Alertmanagers start one poster for each: they do not wait for each other. */
AlertPoster* AlertPosterStart(const char* url);

/* Call it after oxEventShutdown: posts the remaining documents for 5 s at most. Returns the number of documents that
 * were not posted. */
unsigned AlertPosterStop(AlertPoster* poster);

#ifdef __cplusplus
}
#endif

#endif
