/*
 * Writes events to the systemd journal, in C99 or C++. Link with -lsystemd.
 *
 *     static oxEventJournal journal;
 *     oxEventRegisterCallback(oxEventJournalCallback, &journal, &id);
 *
 * An entry has the fields MESSAGE, PRIORITY (RFC 5424), MESSAGE_ID, and one for each other field of the event, even if
 * it is empty: OXEVENT_EVENT_TYPE, OXEVENT_SOURCE_ID and so on. If no journal is running, libsystemd discards the entry
 * and reports no error. Disable the system log sink, which would write each event to the journal again.
 */
#ifndef OXEVENT_JOURNALD_H
#define OXEVENT_JOURNALD_H

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-journal.h>

#include "../oxEvent.h"

/* The user_data of the callback. It must exist until the callback is unregistered. */
typedef struct oxEventJournal {
  const char* (*message_id)(const char* event_type); /* Returns the MESSAGE_ID of an event type; oxevent-catalogue can
                        generate this function. If this member is null, or returns null, the entry gets the MESSAGE_ID
                        of its action, whose explanation in oxevent.catalog journalctl -x shows. */
  uint64_t failures; /* Number of events that the journal did not accept. Read it after a flush or the shutdown. */
  int error;         /* errno of the last failure. */
} oxEventJournal;

/* Compares ASCII letters without regard to their case, in any locale. `name` must be in lower case. */
static inline int oxEventJournalIs(const char* action, const char* name) {
  while (*name != '\0' && (*action | 0x20) == *name) {
    ++action;
    ++name;
  }
  return *action == *name;
}

static inline const char* oxEventJournalActionId(const char* action) {
  if (oxEventJournalIs(action, "raise")) return "1186d646d9de4c8596b5d6add83526ae";
  if (oxEventJournalIs(action, "update")) return "3d76ac56d81b4fd698cb278461678358";
  if (oxEventJournalIs(action, "repeat")) return "9e37356bbc8445aebf6239a4bd34658c";
  if (oxEventJournalIs(action, "clear")) return "2b17babe0c3348809b899afbc64b95c0";
  return "e0bc1fa54ec24924af35ea1b230b0b72"; /* A notice. */
}

/* Writes the number with as few of 15 to 17 significant digits as are needed to read back the same value, and with a
 * decimal point in every locale. Returns the text. */
static inline const char* oxEventJournalFormat(double number, char* text, size_t size) {
  int precision = 14;
  char* point;
  do {
    snprintf(text, size, "%.*g", ++precision, number);
  } while (precision < 17 && strtod(text, NULL) != number);
  point = text + strspn(text, "+-0123456789einfa");
  if (*point != '\0') {
    const char* const digits = point + strcspn(point, "0123456789");
    memmove(point + 1, digits, strlen(digits) + 1);
    *point = '.';
  }
  return text;
}

static inline void oxEventJournalCallback(const oxEventRecord* event, void* user_data) {
  static const char* const severities[] = {"debug", "info", "warning", "error"};
  static const char priorities[] = {'7', '6', '4', '3'};
  oxEventJournal* const journal = (oxEventJournal*)user_data;
  const char* const type_id = journal->message_id != NULL ? journal->message_id(event->event_type) : NULL;
  const char* const id = type_id != NULL ? type_id : oxEventJournalActionId(event->action);
  char value[32];
  char threshold[32];
  /* In parentheses: without the place in this header that the macro of the same name would add. */
  /* clang-format off */
  const int result = (sd_journal_send)(
      "MESSAGE=%s", event->message, "PRIORITY=%c", priorities[event->severity], "MESSAGE_ID=%s", id,
      "OXEVENT_EVENT_ID=%" PRIu64, event->event_id, "OXEVENT_EVENT_TYPE=%s", event->event_type,
      "OXEVENT_SOURCE_ID=%s", event->source_id, "OXEVENT_SOURCE_NAME=%s", event->source_name,
      "OXEVENT_SEVERITY=%s", severities[event->severity], "OXEVENT_ACTION=%s", event->action,
      "OXEVENT_DEDUPE_KEY=%s", event->dedupe_key, "OXEVENT_CORRELATION_ID=%s", event->correlation_id,
      "OXEVENT_UTC_NS=%" PRIu64, event->utc_ns, "OXEVENT_PTP_NS=%" PRIu64, event->ptp_ns,
      "OXEVENT_PTS=%" PRId64, event->pts, "OXEVENT_TIMECODE=%s", event->timecode,
      "OXEVENT_VALUE=%s", oxEventJournalFormat(event->value, value, sizeof(value)),
      "OXEVENT_THRESHOLD=%s", oxEventJournalFormat(event->threshold, threshold, sizeof(threshold)),
      "OXEVENT_UNITS=%s", event->units,
      "OXEVENT_DURATION_MS=%" PRIu64, event->duration_ms, "OXEVENT_DETAILS_JSON=%s", event->details_json, NULL);
  /* clang-format on */
  if (result >= 0) return;
  ++journal->failures;
  journal->error = -result;
}

#endif
