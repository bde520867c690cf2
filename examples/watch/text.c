#define _POSIX_C_SOURCE 200809L  // NOLINT(bugprone-reserved-identifier)

#include "text.h"

#include <stdarg.h>
#include <stdbool.h>
#include <stdlib.h>

static void DieWithoutMemory(void) {
  fputs("oxevent-watch: out of memory\n", stderr);
  exit(1);
}

static FILE* OpenText(char** text, size_t* size) {
  FILE* out = open_memstream(text, size);
  if (out == NULL) DieWithoutMemory();
  return out;
}

static void CloseText(FILE* out) {
  const bool failed = ferror(out) != 0;
  if (fclose(out) != 0 || failed) DieWithoutMemory();
}

char* FormatText(const char* format, ...) {
  char* text = NULL;
  size_t size = 0;
  FILE* out = OpenText(&text, &size);
  va_list arguments;
  va_start(arguments, format);
  vfprintf(out, format, arguments);  // NOLINT(clang-analyzer-valist.Uninitialized): a false positive.
  va_end(arguments);
  CloseText(out);
  return text;
}

/* Returns the length in bytes of the well-formed UTF-8 character at `s`, or 0 if there is none (RFC 3629, section 4).
 */
static size_t Utf8Size(const unsigned char* s) {
  if (s[0] < 0x80) return 1;
  size_t size = 0;
  if (s[0] >= 0xC2 && s[0] <= 0xDF) size = 2;
  if (s[0] >= 0xE0 && s[0] <= 0xEF) size = 3;
  if (s[0] >= 0xF0 && s[0] <= 0xF4) size = 4;
  for (size_t i = 1; i < size; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;  // Also at the terminating NUL.
  }
  const bool overlong = (s[0] == 0xE0 && s[1] < 0xA0) || (s[0] == 0xF0 && s[1] < 0x90);
  const bool surrogate = s[0] == 0xED && s[1] >= 0xA0;
  const bool too_large = s[0] == 0xF4 && s[1] >= 0x90;
  return overlong || surrogate || too_large ? 0 : size;
}

static bool IsControl(unsigned char byte) { return byte < 0x20 || byte == 0x7F; }

char* CleanText(const char* text) {
  char* clean = NULL;
  size_t clean_size = 0;
  FILE* out = OpenText(&clean, &clean_size);
  for (const unsigned char* s = (const unsigned char*)text; *s != 0;) {
    const size_t size = IsControl(*s) ? 0 : Utf8Size(s);
    if (size == 0) {
      fputs("\xEF\xBF\xBD", out);
    } else {
      fwrite(s, 1, size, out);
    }
    s += size == 0 ? 1 : size;
  }
  CloseText(out);
  return clean;
}

void JsonBegin(JsonObject* object) {
  object->text = NULL;
  object->size = 0;
  object->out = OpenText(&object->text, &object->size);
}

static void AddName(JsonObject* object, const char* name) {
  fprintf(object->out, "%s\"%s\":", ftell(object->out) == 0 ? "{" : ",", name);
}

void JsonAddText(JsonObject* object, const char* name, const char* value) {
  AddName(object, name);
  putc('"', object->out);
  for (const unsigned char* s = (const unsigned char*)value; *s != 0;) {
    const size_t size = Utf8Size(s);
    if (size == 0) {
      fputs("\\ufffd", object->out);
    } else if (IsControl(*s)) {
      fprintf(object->out, "\\u%04x", *s);
    } else {
      if (*s == '"' || *s == '\\') putc('\\', object->out);
      fwrite(s, 1, size, object->out);
    }
    s += size == 0 ? 1 : size;
  }
  putc('"', object->out);
}

void JsonAddNumber(JsonObject* object, const char* name, double value) {
  AddName(object, name);
  fprintf(object->out, "%.15g", value);
}

char* JsonEnd(JsonObject* object) {
  fputs(ftell(object->out) == 0 ? "{}" : "}", object->out);
  CloseText(object->out);
  return object->text;
}
