/*
 * String functions: formatting, validation, JSON objects. The caller frees the returned strings. A failed allocation
 * ends the program: without memory it could not report anything.
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
 * Returns a copy of `text` that is well-formed UTF-8 on one line: U+FFFD replaces control characters and bytes that are
 * not UTF-8. File names may contain any byte, but the library's strings are UTF-8, and the system log sink does not
 * escape them.
 */
char* CleanText(const char* text);

/* Writes a JSON object member by member. Names are literals that need no escaping. */
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
