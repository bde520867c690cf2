#include "check/findings.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "common/command_line.h"
#include "oxUTF8.h"
#include "sinks/oxEventText.h"

namespace {

constexpr std::string_view kGradeNames[] = {"error", "warning", "note", "note"};

// Bytes that are no UTF-8 become U+FFFD: JSON is UTF-8 throughout (RFC 8259, section 8.1).
std::string Utf8(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    const size_t size = oxUTF8SequenceLength(text);
    const bool is_stray = size == 1 && (text[0] & 0x80) != 0;
    valid.append(is_stray ? "\xEF\xBF\xBD" : text.substr(0, size));
    text.remove_prefix(size);
  }
  return valid;
}

std::string_view NameOf(Grade grade) { return kGradeNames[static_cast<size_t>(grade)]; }

}  // namespace

void Sort(bool with_details, std::vector<Finding>* findings) {
  if (!with_details) std::erase_if(*findings, [](const Finding& f) { return f.grade == Grade::kDetail; });
  std::stable_sort(findings->begin(), findings->end(), [](const Finding& a, const Finding& b) {
    return std::tie(a.where.line, a.where.column, a.grade) < std::tie(b.where.line, b.where.column, b.grade);
  });
}

std::string AsText(const std::string& file, const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& f : findings) {
    text += file + ":" + std::to_string(f.where.line) + ":" + std::to_string(f.where.column) + ": ";
    text.append(NameOf(f.grade)).append(": ");
    if (!f.key.empty()) text += Printable(f.key) + ": ";
    text += Printable(f.text) + "\n";
    if (!f.remedy.empty()) text += "    " + Printable(f.remedy) + "\n";
  }
  return text;
}

std::string AsJson(const std::string& file, const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& f : findings) {
    if (!text.empty()) text += ",\n";
    oxEventText::JsonObject object(&text);
    object.AddStringField("file", Utf8(file));
    object.AddField("line", uint64_t{f.where.line});
    object.AddField("column", uint64_t{f.where.column});
    object.AddStringField("key", Utf8(f.key));
    object.AddStringField("severity", NameOf(f.grade));
    object.AddStringField("code", f.code);
    object.AddStringField("text", Utf8(f.text));
    object.AddStringField("remedy", Utf8(f.remedy));
    object.Close();
  }
  return text;
}
