#include "check/findings.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "sinks/oxEventText.h"

namespace {

constexpr std::string_view kGradeNames[] = {"error", "warning", "note", "note"};

std::string_view NameOf(Grade grade) { return kGradeNames[static_cast<size_t>(grade)]; }

// A value of the file may hold line ends and worse.
std::string Printable(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte != 0x7F) {
      printable.push_back(c);
    } else if (c == '\n' || c == '\t' || c == '\r') {
      printable.append(c == '\n' ? "\\n" : c == '\t' ? "\\t" : "\\r");
    } else {
      printable.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xF]);
    }
  }
  return printable;
}

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
    object.AddStringField("file", file);
    object.AddField("line", uint64_t{f.where.line});
    object.AddField("column", uint64_t{f.where.column});
    object.AddStringField("key", f.key);
    object.AddStringField("severity", NameOf(f.grade));
    object.AddStringField("code", f.code);
    object.AddStringField("text", f.text);
    object.AddStringField("remedy", f.remedy);
    object.Close();
  }
  return text;
}
