#include "check/findings.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "common/command_line.h"
#include "sinks/oxEventText.h"

namespace {

constexpr std::string_view kSeverityNames[] = {"error", "warning", "note", "note"};

std::string_view NameOf(Severity severity) { return kSeverityNames[static_cast<size_t>(severity)]; }

}  // namespace

void Sort(bool with_details, std::vector<Finding>* findings) {
  if (!with_details) std::erase_if(*findings, [](const Finding& f) { return f.severity == Severity::kDetail; });
  std::stable_sort(findings->begin(), findings->end(), [](const Finding& a, const Finding& b) {
    return std::tie(a.position.line, a.position.column, a.severity) <
           std::tie(b.position.line, b.position.column, b.severity);
  });
}

std::string FormatText(const std::string& file, const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& f : findings) {
    text += file + ":" + std::to_string(f.position.line) + ":" + std::to_string(f.position.column) + ": ";
    text.append(NameOf(f.severity)).append(": ");
    if (!f.key.empty()) text += Printable(f.key) + ": ";
    text += Printable(f.text) + "\n";
    if (!f.remedy.empty()) text += "    " + Printable(f.remedy) + "\n";
  }
  return text;
}

std::string FormatJson(const std::string& file, const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& f : findings) {
    if (!text.empty()) text += ",\n";
    oxEventWriter writer(&text);
    oxEventText::JsonObject object(&writer);
    object.AddStringField<"file">(ValidUtf8(file));
    object.AddField<"line">(f.position.line);
    object.AddField<"column">(f.position.column);
    object.AddStringField<"key">(ValidUtf8(f.key));
    object.AddStringField<"severity">(NameOf(f.severity));
    object.AddStringField<"code">(f.code);
    object.AddStringField<"text">(ValidUtf8(f.text));
    object.AddStringField<"remedy">(ValidUtf8(f.remedy));
    object.Close();
  }
  return text;
}
