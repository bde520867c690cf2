/*
 * Texts of the watcher: formatted ones, clean ones, JSON objects. Every text returned is the caller's to free. A failed
 * allocation ends the program: a watcher without memory has nothing to report with.
 */
#ifndef WATCH_TEXT_H
#define WATCH_TEXT_H

#include <stdio.h>

#if defined(__GNUC__)
#define WATCH_PRINTF_LIKE __attribute__((format(printf, 1, 2)))
#else
#define WATCH_PRINTF_LIKE
#endif

char* FormatText(const char* format, ...) WATCH_PRINTF_LIKE;

/*
 * A copy of `text` that is well-formed UTF-8 on one line: what is not becomes U+FFFD. File names may hold any byte, but
 * the library's texts are UTF-8, and the system log's lines are not escaped.
 */
char* CleanText(const char* text);

/* A JSON object that is being written, member by member. Names are literals that need no escape. */
typedef struct JsonObject {
  FILE* out;
  char* text;
  size_t size;
} JsonObject;

void JsonBegin(JsonObject* object);
void JsonAddText(JsonObject* object, const char* name, const char* value);
void JsonAddNumber(JsonObject* object, const char* name, double value); /* Finite. */
char* JsonEnd(JsonObject* object);

#endif
