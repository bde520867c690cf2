/*
 * Posts a host's events to an Alertmanager: oxEvent formats the documents, the host posts them. Copy alert_poster.h and
 * alert_poster.cpp into your program. They need C++20 and the companion library (-loxutil); the header can be included
 * in C too. Call the functions from one thread. Errors are printed to stderr.
 */
#ifndef ALERT_POSTER_H
#define ALERT_POSTER_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct AlertPoster AlertPoster;

/* Creates a poster and registers its callback with oxEvent. Must be called before oxEventInitialize. `url` ends in
 * /api/v2/alerts. Returns null on failure. For a cluster of Alertmanagers, start one poster for each: the posters do
 * not wait for each other. */
AlertPoster* AlertPosterStart(const char* url);

/* Posts the remaining documents, and each active alert once more, and frees the poster. Must be called after
 * oxEventShutdown. After 5 s, begins no further pass over the alerts; in a pass, each post to an Alertmanager that does
 * not respond takes 3 s. Returns the number of documents that were not posted. */
unsigned AlertPosterStop(AlertPoster* poster);

#ifdef __cplusplus
}
#endif

#endif
