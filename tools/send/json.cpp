#include "send/json.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <vector>

#include "common/command_line.h"
#include "send/fields.h"

namespace {

constexpr const char* kSeverityNumbers[] = {"severity_value", "severity_code"};  // Other names of the field severity.

enum class Type { kString, kNumber, kOther };

class EventReader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, EventReader> {
 public:
  EventReader(std::string_view json, oxEventRecord* record, std::deque<std::string>* strings)
      : json_(json), stream_(json.data(), json.size()), record_(*record), strings_(*strings) {}

  void Read() {
    // Iterative, so that deep nesting cannot overflow the stack. Numbers as strings, so that no digit is lost.
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::Reader reader;
    if (const auto result = reader.Parse<kFlags>(stream_, *this); result.IsError()) {
      std::string text = rapidjson::GetParseError_En(result.Code());
      text.pop_back();  // The full stop.
      throw JsonError("invalid JSON: " + text, result.Offset());
    }
    if (stream_.Tell() != json_.size()) throw JsonError("invalid JSON: unexpected NUL byte", stream_.Tell());
  }

  // Called by the parser. The stream is then just past the token, except after a brace or bracket that begins or ends
  // an object or array: there the stream is still at the token.
  bool Null() { return Scalar(Type::kOther, "", true); }
  bool Bool(bool) { return Scalar(Type::kOther, ""); }
  bool RawNumber(const char* text, rapidjson::SizeType size, bool) { return Scalar(Type::kNumber, {text, size}); }
  bool String(const char* text, rapidjson::SizeType size, bool) { return Scalar(Type::kString, {text, size}); }
  bool StartObject() { return Start(true); }
  bool StartArray() { return Start(false); }
  bool EndObject(rapidjson::SizeType) { return End(); }
  bool EndArray(rapidjson::SizeType) { return End(); }

  bool Key(const char* text, rapidjson::SizeType size, bool) {
    FindToken(0);
    if (depth_ > 1) return true;
    name_.assign(text, size);
    if (std::find(names_.begin(), names_.end(), name_) != names_.end()) Fail("appears twice");
    names_.push_back(name_);
    number_only_ =
        std::find(std::begin(kSeverityNumbers), std::end(kSeverityNumbers), name_) != std::end(kSeverityNumbers);
    field_ = FindField(number_only_ ? "severity" : name_);
    if (field_ == nullptr && name_ != "version") Fail("is not a field of an event" + DidYouMean(name_, Names()));
    return true;
  }

 private:
  static std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const Field& field : g_fields) names.emplace_back(field.name);
    return names;
  }

  [[noreturn]] void Fail(const std::string& text) const { throw JsonError(name_ + ": " + text, token_); }

  // Finds the parser's current token. `rest`: number of its bytes that the stream has not consumed.
  void FindToken(size_t rest) {
    token_ = json_.find_first_not_of(" \t\r\n,:", token_end_);
    token_end_ = stream_.Tell() + rest;
  }

  bool Start(bool object) {
    FindToken(1);
    if (depth_ == 0 && !object) throw JsonError("an event must be a JSON object", token_);
    if (depth_ == 1) {
      if (!Is("details_json")) Fail("must not be an object or an array");
      details_ = token_;
    }
    ++depth_;
    return true;
  }

  bool End() {
    FindToken(1);
    if (--depth_ == 1) Set(std::string(json_.substr(details_, token_end_ - details_)));  // Passed on unchanged.
    return true;
  }

  bool Scalar(Type type, std::string_view text, bool null = false) {
    FindToken(0);
    if (depth_ == 0) throw JsonError("an event must be a JSON object", token_);
    // A null, which the library writes for NaN and infinities, means that no value is given.
    if (depth_ > 1 || null) return true;
    if (field_ == nullptr) {
      if (type != Type::kNumber || text != std::to_string(OXEVENT_API_VERSION)) {
        Fail("must be " + std::to_string(OXEVENT_API_VERSION));
      }
      return true;
    }
    const bool takes_string = field_->IsString() || Is("utc_ns") || (Is("severity") && !number_only_);
    if (type == Type::kOther || (type == Type::kString ? !takes_string : field_->IsString())) {
      Fail(field_->IsString() ? Is("details_json") ? "must be a string, an object or an array" : "must be a string"
           : takes_string     ? "must be a number or a string"
                              : "must be a number");
    }
    if (text.find('\0') != text.npos) Fail("contains a NUL, which no string of an event may contain");
    Set(std::string(text));
    return true;
  }

  void Set(std::string text) {
    const uint32_t old_severity = record_.severity;
    strings_.push_back(std::move(text));
    try {
      SetField(*field_, strings_.back().c_str(), &record_);
    } catch (const std::invalid_argument& error) {
      Fail(error.what());
    }
    if (!Is("severity")) return;
    if (severity_given_ && record_.severity != old_severity) Fail("contradicts the previous severity");
    severity_given_ = true;
  }

  bool Is(std::string_view field) const { return field_ != nullptr && field_->name == field; }

  const std::string_view json_;
  rapidjson::MemoryStream stream_;
  oxEventRecord& record_;
  std::deque<std::string>& strings_;
  size_t depth_ = 0;
  size_t token_ = 0;              // Offset of the token.
  size_t token_end_ = 0;          // Offset just past the token.
  size_t details_ = 0;            // Offset of the object or array of details_json.
  std::string name_;              // Name of the current member.
  const Field* field_ = nullptr;  // Field that the member sets; null: version.
  bool number_only_ = false;      // The member takes the severity only as a number.
  bool severity_given_ = false;
  std::vector<std::string> names_;  // Names of the members so far.
};

}  // namespace

void ReadEvent(std::string_view json, oxEventRecord* record, std::deque<std::string>* strings) {
  EventReader(json, record, strings).Read();
  if (record->message == nullptr) throw JsonError("message: is missing", 0);
  if (record->message[0] == '\0') throw JsonError("message: is empty", 0);
}
