// What the HTTP sinks send: header lines, tokens, and who may read them.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/oxEventAscii.h"
#include "check/settings_file.h"
#include "check/syntax.h"

namespace {

using Form = oxEventSettingForm;
using Type = oxEventSinkType;

constexpr std::string_view kFieldBlanks = " \t";  // RFC 9110, section 5.6.3.

std::string_view Trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

// As the sink splits them.
std::vector<std::string> LinesOf(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const size_t end = text.find_first_of("\n\r|");
    if (const std::string_view line = Trim(text.substr(0, end)); !line.empty()) lines.emplace_back(line);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
  }
  return lines;
}

// Empty: the line has none.
std::string HeaderName(std::string_view line) {
  const size_t colon = line.find(':');
  const size_t last = line.substr(0, colon).find_last_not_of(kFieldBlanks);
  return colon == line.npos || last == line.npos ? "" : oxEventAsciiLower(line.substr(0, last + 1));
}

bool HasBlankBeforeColon(std::string_view line) {
  const size_t colon = line.find(':');
  return colon != line.npos && colon > 0 && kFieldBlanks.find(line[colon - 1]) != kFieldBlanks.npos;
}

bool IsToken(std::string_view text) {  // RFC 9110, section 5.6.2.
  return std::all_of(text.begin(), text.end(), [](char c) {
    return oxEventAsciiIsAlnum(c) || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

bool NamesSecret(std::string_view header_name) {
  constexpr std::string_view kParts[] = {"auth", "token", "key", "cookie", "secret", "password"};
  return std::any_of(std::begin(kParts), std::end(kParts),
                     [&](std::string_view part) { return header_name.find(part) != header_name.npos; });
}

bool IsHttp(const Group& group) {
  return group.sink != nullptr &&
         (group.sink->type == Type::kWebhookHttp || group.sink->type == Type::kCloudEventsHttp);
}

class Rules {
 public:
  Rules(const SettingsFile& file, std::vector<Finding>* findings) : file_(file), findings_(*findings) {}

  void Check(const Group& group) {
    group_ = &group;
    for (const Value& value : group.values) {
      if (value.setting->form == Form::kHeaderLines) CheckHeaderLines(value);
    }
    if (!IsHttp(group)) return;
    if (const Value* const token = group.Find("bearer_token")) CheckToken(*token);
    CheckAuthorizations();
    if (group.sink->enabled) CheckTransport();
  }

  // Who else may read the secrets, or put other ones in their place.
  void CheckAccess() {
    struct stat status;
    if (stat(file_.path.c_str(), &status) != 0) return;
    const bool others_read = (status.st_mode & S_IROTH) != 0;
    const bool others_write = (status.st_mode & S_IWOTH) != 0;
    const bool anothers = geteuid() != 0 && status.st_uid != 0 && status.st_uid != geteuid();
    if (!others_read && !others_write && !anothers) return;
    const char* const who = others_write  ? "every user of the machine may change"
                            : others_read ? "every user of the machine may read"
                                          : "its owner, who is neither root nor you, may read";
    for (const Group& group : file_.groups) {
      group_ = &group;
      for (const Value& value : group.values) {
        if (!HoldsSecret(value)) continue;
        Warn("secret-readable", value.setting->name, std::string("is a secret in a file that ") + who,
             anothers ? "Give the file to the user that the library runs as: chown."
                      : "chmod o-rw, or 0640 with a group of its own.");
      }
    }
  }

 private:
  void Add(Grade grade, const char* code, std::string_view name, std::string text, std::string remedy) {
    findings_.push_back({grade, code, group_->At(name), group_->PathOf(name), std::move(text), std::move(remedy)});
  }
  void Warn(const char* code, std::string_view name, std::string text, std::string remedy) {
    Add(Grade::kWarning, code, name, std::move(text), std::move(remedy));
  }

  static bool HoldsSecret(const Value& value) {
    if (value.text.empty()) return false;
    if (value.setting->form == Form::kSecret) return value.text != oxEventSettingDefault(*value.setting);
    if (value.setting->form == Form::kUrl) return UrlFault(value.text).empty() && PartsOf(value.text).has_password;
    if (value.setting->form != Form::kHeaderLines) return false;
    const std::vector<std::string> lines = LinesOf(value.text);
    return std::any_of(lines.begin(), lines.end(), [](const std::string& l) { return NamesSecret(HeaderName(l)); });
  }

  void CheckHeaderLines(const Value& value) {
    struct Rule {
      std::string_view name;
      const char* text;
    };
    constexpr Rule kRules[] = {
        {"content-length", "the client sets it itself and passes this line over"},
        {"transfer-encoding", "the client sets it itself and passes this line over"},
        {"expect", "the client never sends it and passes this line over"},
        {"content-type", "the sink sends one of its own; this would be a second"},
        {"user-agent", "the sink sends one of its own; this would be a second"},
        {"x-oxevent-tls-verify", "the setting tls_verify counts; this line is passed over"},
        {"x-oxevent-connect-timeout-ms", "the setting connect_timeout_ms counts; this line is passed over"}};
    size_t number = 0;
    for (const std::string& line : LinesOf(value.text)) {
      ++number;
      const std::string name = HeaderName(line);
      if (name.empty()) {  // The line may be a secret, which no output shows.
        Warn("bad-header", value.setting->name,
             "a line without a name and a colon is passed over: line " + std::to_string(number),
             "Write NAME: VALUE, with a line end or | between two lines, and no | within one.");
      } else if (!IsToken(name)) {
        Warn("bad-header", value.setting->name,
             "the name of a header line holds what none may, so that every post fails: line " + std::to_string(number),
             "Use letters, digits and dashes; the colon follows at once.");
      } else if (HasBlankBeforeColon(line)) {
        Warn("bad-header", value.setting->name, name + ": has a blank before its colon; the client leaves that out",
             "Remove the blank.");
      }
      for (const Rule& rule : kRules) {
        if (rule.name == name)
          Warn("reserved-header", value.setting->name, name + ": " + rule.text, "Remove the line.");
      }
    }
  }

  void CheckToken(const Value& token) {
    const std::string lower = oxEventAsciiLower(token.text);
    if (lower.starts_with("bearer ") || lower.starts_with("basic ") || lower.starts_with("authorization:")) {
      Warn("bad-token", "bearer_token", "begins with what the sink puts before it: Authorization: Bearer",
           "Give the token alone.");
    } else if (!HasBlankEnds(token.text) && token.text.find_first_of(kBlanks) != token.text.npos) {
      Warn("bad-token", "bearer_token", "holds blanks, which no token has (RFC 6750, section 2.1)", "Remove them.");
    }
  }

  void CheckAuthorizations() {
    const oxEventSinkConfig& sink = *group_->sink;
    const std::vector<std::string> lines = LinesOf(sink.headers);
    const auto own = std::count_if(lines.begin(), lines.end(),
                                   [](const std::string& line) { return HeaderName(line) == "authorization"; });
    const bool basic = !sink.basic_username.empty() || !sink.basic_password.empty();
    const auto all = own + (sink.bearer_token.empty() ? 0 : 1) + (basic ? 1 : 0);
    std::vector<const char*> from;
    if (own > 0) from.push_back(sink.type == Type::kCloudEventsHttp ? "auth_header" : "headers");
    if (!sink.bearer_token.empty()) from.push_back("bearer_token");
    if (basic) from.push_back(sink.basic_username.empty() ? "basic_password" : "basic_username");
    for (const char* const name : from) {
      if (all < 2) break;
      Add(name == from.back() ? Grade::kWarning : Grade::kNote, "two-authorizations", name,
          "each request carries " + std::to_string(all) + " Authorization lines", "Keep one.");
    }
    if (basic && sink.basic_username.empty()) {
      Warn("no-username", "basic_password", "a password without basic_username", "Set basic_username.");
    } else if (basic && sink.basic_password.empty()) {
      Warn("no-password", "basic_username", "a name without basic_password", "Set basic_password.");
    }
    if (sink.basic_username.find(':') != std::string::npos) {
      Warn("bad-username", "basic_username", "holds a colon, at which the server ends the name (RFC 7617, section 2)",
           "Choose another.");
    }
  }

  void CheckTransport() {
    const oxEventSinkConfig& sink = *group_->sink;
    if (!UrlFault(sink.endpoint_url).empty()) return;
    const UrlParts url = PartsOf(sink.endpoint_url);
    if (url.has_password) {
      Warn("secret-in-url", "endpoint_url", "holds a password, which error texts would show",
           "Use basic_username and basic_password.");
    }
    if (!url.https && !url.loopback) {
      bool told = false;
      for (const Value& value : group_->values) {
        if (!HoldsSecret(value) || value.setting->form == Form::kUrl) continue;
        if (!told)
          Warn("secret-in-clear", "endpoint_url", "plain http carries the sink's secrets readable", "Use https.");
        told = true;
        Add(Grade::kNote, "secret-in-clear", value.setting->name, "goes over plain http", "Use https.");
      }
    }
    if (!url.https) return;
    if (sink.type == Type::kCloudEventsHttp) {
      Warn("tls-unverified", "endpoint_url", "this section never verifies the endpoint's certificate",
           "Use sink\\webhook\\http with payload_mode cloudevents.");
    } else if (!sink.tls_verify) {
      Warn("tls-unverified", "tls_verify",
           "any certificate will do: whoever is on the way can read and change the events",
           "Set it to 1, and have the endpoint's authority among the system's certificates.");
    }
  }

  const SettingsFile& file_;
  std::vector<Finding>& findings_;
  const Group* group_ = nullptr;
};

}  // namespace

void CheckHttp(const SettingsFile& file, std::vector<Finding>* findings) {
  Rules rules(file, findings);
  for (const Group& group : file.groups) rules.Check(group);
  rules.CheckAccess();
}
