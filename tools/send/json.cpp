#include "send/json.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <vector>

#include "common/command_line.h"
#include "send/fields.h"

namespace {

constexpr const char* kSeverityNumbers[] = {"severity_value", "severity_code"};  // Further names of the severity.

enum class Form { kText, kNumber, kOther };

class EventReader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, EventReader> {
 public:
  EventReader(std::string_view json, oxEventRecord* record, std::deque<std::string>* texts)
      : json_(json), stream_(json.data(), json.size()), record_(*record), texts_(*texts) {}

  void Read() {
    // Iterative: no depth of nesting exhausts the stack. Numbers as text: none loses a digit.
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::Reader reader;
    if (const auto result = reader.Parse<kFlags>(stream_, *this); result.IsError()) {
      std::string text = rapidjson::GetParseError_En(result.Code());
      if (text.ends_with('.')) text.pop_back();
      throw JsonError("no JSON: " + text, result.Offset());
    }
    if (stream_.Tell() != json_.size()) throw JsonError("no JSON: a NUL", stream_.Tell());
  }

  // What the parser has found. The stream stands behind it, but for what begins and ends objects and arrays.
  bool Null() { return Scalar(Form::kOther, "", true); }
  bool Bool(bool) { return Scalar(Form::kOther, ""); }
  bool RawNumber(const char* text, rapidjson::SizeType size, bool) { return Scalar(Form::kNumber, {text, size}); }
  bool String(const char* text, rapidjson::SizeType size, bool) { return Scalar(Form::kText, {text, size}); }
  bool StartObject() { return Start(true); }
  bool StartArray() { return Start(false); }
  bool EndObject(rapidjson::SizeType) { return End(); }
  bool EndArray(rapidjson::SizeType) { return End(); }

  bool Key(const char* text, rapidjson::SizeType size, bool) {
    FindToken(0);
    if (depth_ > 1) return true;
    name_.assign(text, size);
    if (std::find(names_.begin(), names_.end(), name_) != names_.end()) Refuse("is there twice");
    names_.push_back(name_);
    number_only_ =
        std::find(std::begin(kSeverityNumbers), std::end(kSeverityNumbers), name_) != std::end(kSeverityNumbers);
    field_ = FindField(number_only_ ? "severity" : name_);
    if (field_ == nullptr && name_ != "version") Refuse("is no field of an event" + DidYouMean(name_, Names()));
    return true;
  }

 private:
  static std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const Field& field : g_fields) names.emplace_back(field.name);
    return names;
  }

  [[noreturn]] void Refuse(const std::string& text) const { throw JsonError(name_ + ": " + text, token_); }

  // Where the token begins that the parser is at. `rest`: the bytes of it that the stream has not taken.
  void FindToken(size_t rest) {
    token_ = json_.find_first_not_of(" \t\r\n,:", token_end_);
    token_end_ = stream_.Tell() + rest;
  }

  bool Start(bool object) {
    FindToken(1);
    if (depth_ == 0 && !object) throw JsonError("an event is an object", token_);
    if (depth_ == 1) {
      if (!Is("details_json")) Refuse("must not be an object or an array");
      details_ = token_;
    }
    ++depth_;
    return true;
  }

  bool End() {
    FindToken(1);
    if (--depth_ == 1) Set(std::string(json_.substr(details_, token_end_ - details_)));  // As it stands.
    return true;
  }

  bool Scalar(Form form, std::string_view text, bool null = false) {
    FindToken(0);
    if (depth_ == 0) throw JsonError("an event is an object", token_);
    if (depth_ > 1 || null) return true;  // Null: not given, as NaN in the library's own documents.
    if (field_ == nullptr) {
      if (form != Form::kNumber || text != std::to_string(OXEVENT_API_VERSION)) {
        Refuse("must be " + std::to_string(OXEVENT_API_VERSION));
      }
      return true;
    }
    const bool takes_text = field_->IsText() || Is("utc_ns") || (Is("severity") && !number_only_);
    if (form == Form::kOther || (form == Form::kText ? !takes_text : field_->IsText())) {
      Refuse(field_->IsText() ? Is("details_json") ? "must be a text, an object or an array" : "must be a text"
             : takes_text     ? "must be a number or a text"
                              : "must be a number");
    }
    if (text.find('\0') != text.npos) Refuse("holds a NUL, which no text of an event can");
    Set(std::string(text));
    return true;
  }

  void Set(std::string text) {
    const uint32_t severity = record_.severity;
    texts_.push_back(std::move(text));
    try {
      SetField(*field_, texts_.back().c_str(), &record_);
    } catch (const std::invalid_argument& error) {
      Refuse(error.what());
    }
    if (!Is("severity")) return;
    if (severity_given_ && record_.severity != severity) Refuse("contradicts the severity before");
    severity_given_ = true;
  }

  bool Is(std::string_view field) const { return field_ != nullptr && field_->name == field; }

  const std::string_view json_;
  rapidjson::MemoryStream stream_;
  oxEventRecord& record_;
  std::deque<std::string>& texts_;
  size_t depth_ = 0;
  size_t token_ = 0;  // Offset of the token, and of what is behind it.
  size_t token_end_ = 0;
  size_t details_ = 0;            // Offset of the value that is passed on as it stands.
  std::string name_;              // The member's name.
  const Field* field_ = nullptr;  // That it sets; null: the version.
  bool number_only_ = false;      // The name stands for a number.
  bool severity_given_ = false;
  std::vector<std::string> names_;  // The members' names so far.
};

}  // namespace

void ReadEvent(std::string_view json, oxEventRecord* record, std::deque<std::string>* texts) {
  EventReader(json, record, texts).Read();
  if (record->message == nullptr) throw JsonError("message: is missing", 0);
  if (record->message[0] == '\0') throw JsonError("message: is empty", 0);
}
