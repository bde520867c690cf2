// Checks the settings of the HTTP sinks: header lines, credentials, TLS, and the permissions of a file with secrets.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/oxEventAscii.h"
#include "check/settings_file.h"
#include "check/syntax.h"
#include "platform/oxEventPlatformHttp.h"

namespace {

using Form = oxEventSettingForm;
using Type = oxEventSinkType;

constexpr std::string_view kFieldWhiteSpace = " \t";  // RFC 9110, section 5.6.3.

std::string_view Trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(kWhiteSpace);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(kWhiteSpace) + 1 - begin);
}

// Splits and trims header lines as the sink does.
std::vector<std::string> SplitHeaderLines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const size_t end = text.find_first_of("\n\r|");
    if (const std::string_view line = Trim(text.substr(0, end)); !line.empty()) lines.emplace_back(line);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
  }
  return lines;
}

// Returns the header's name in lower case, or an empty string if the line has none.
std::string HeaderName(std::string_view line) {
  const size_t colon = line.find(':');
  const size_t last = line.substr(0, colon).find_last_not_of(kFieldWhiteSpace);
  return colon == line.npos || last == line.npos ? "" : oxEventAsciiLower(line.substr(0, last + 1));
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

class HttpChecker {
 public:
  HttpChecker(const SettingsFile& file, std::vector<Finding>* findings) : file_(file), findings_(*findings) {}

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

  // Reports secrets that other users may read or replace.
  void CheckAccess() {
    struct stat status;
    if (stat(file_.path.c_str(), &status) != 0) return;
    const bool others_read = (status.st_mode & S_IROTH) != 0;
    const bool others_write = (status.st_mode & S_IWOTH) != 0;
    const bool owned_by_other = geteuid() != 0 && status.st_uid != 0 && status.st_uid != geteuid();
    if (!others_read && !others_write && !owned_by_other) return;
    const char* const who = others_write  ? "every user of the machine may change"
                            : others_read ? "every user of the machine may read"
                                          : "its owner, who is neither root nor you, may read";
    for (const Group& group : file_.groups) {
      group_ = &group;
      for (const Value& value : group.values) {
        if (!HoldsSecret(value)) continue;
        Warn("secret-readable", value.setting->name, std::string("is a secret in a file that ") + who,
             owned_by_other ? "Give the file to the user that the library runs as: chown."
                            : "Run chmod o-rw on the file, or use mode 0640 with a dedicated group.");
      }
    }
  }

 private:
  void Add(Severity severity, const char* code, std::string_view name, std::string text, std::string remedy) {
    findings_.push_back(
        {severity, code, group_->PositionOf(name), group_->PathOf(name), std::move(text), std::move(remedy)});
  }
  void Warn(const char* code, std::string_view name, std::string text, std::string remedy) {
    Add(Severity::kWarning, code, name, std::move(text), std::move(remedy));
  }

  static bool HoldsSecret(const Value& value) {
    if (value.text.empty()) return false;
    if (value.setting->form == Form::kSecret) return value.text != oxEventSettingDefault(*value.setting);
    if (value.setting->form == Form::kUrl) return UrlFault(value.text).empty() && ParseUrl(value.text).has_password;
    if (value.setting->form != Form::kHeaderLines) return false;
    const std::vector<std::string> lines = SplitHeaderLines(value.text);
    return std::any_of(lines.begin(), lines.end(), [](const std::string& l) { return NamesSecret(HeaderName(l)); });
  }

  void CheckHeaderLines(const Value& value) {
    struct Rule {
      std::string_view name;
      const char* text;
    };
    constexpr Rule kRules[] = {
        {"content-length", "the HTTP client sets it itself and ignores this line"},
        {"transfer-encoding", "the HTTP client sets it itself and ignores this line"},
        {"expect", "the HTTP client never sends it and ignores this line"},
        {"content-type", "the sink sends this header itself; this line would repeat it"},
        {"user-agent", "the sink sends this header itself; this line would repeat it"},
        {"x-oxevent-tls-verify", "the setting tls_verify applies; this line is ignored"},
        {"x-oxevent-connect-timeout-ms", "the setting connect_timeout_ms applies; this line is ignored"}};
    size_t number = 0;
    for (const std::string& line : SplitHeaderLines(value.text)) {
      ++number;
      const std::string name = HeaderName(line);
      if (name.empty()) {  // The line may be a secret: do not print it.
        Warn("bad-header", value.setting->name,
             "a line without a name and a colon is ignored: line " + std::to_string(number),
             "Write NAME: VALUE, with a line end or | between two lines, and no | within a line.");
      } else if (!IsToken(name)) {
        Warn("bad-header", value.setting->name,
             "a header name contains a character that is not allowed, so every POST fails: line " +
                 std::to_string(number),
             "Use letters, digits and dashes, directly followed by the colon.");
      } else if (line.find(':') != name.size()) {
        Warn("bad-header", value.setting->name, name + ": has white space before its colon; the HTTP client removes it",
             "Remove the white space.");
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
      Warn("bad-token", "bearer_token", "begins with what the sink adds itself: Authorization: Bearer",
           "Set only the token.");
    } else if (!HasOuterWhiteSpace(token.text) && token.text.find_first_of(kWhiteSpace) != token.text.npos) {
      Warn("bad-token", "bearer_token", "contains white space, which no token may contain (RFC 6750, section 2.1)",
           "Remove the white space.");
    }
  }

  void CheckAuthorizations() {
    const oxEventSinkConfig& sink = *group_->sink;
    const std::vector<std::string> lines = SplitHeaderLines(sink.headers);
    const auto from_lines = std::count_if(lines.begin(), lines.end(),
                                          [](const std::string& line) { return HeaderName(line) == "authorization"; });
    const bool basic = !sink.basic_username.empty() || !sink.basic_password.empty();
    const auto count = from_lines + (sink.bearer_token.empty() ? 0 : 1) + (basic ? 1 : 0);
    std::vector<const char*> settings;
    if (from_lines > 0) settings.push_back(sink.type == Type::kCloudEventsHttp ? "auth_header" : "headers");
    if (!sink.bearer_token.empty()) settings.push_back("bearer_token");
    if (basic) settings.push_back(sink.basic_username.empty() ? "basic_password" : "basic_username");
    for (const char* const name : settings) {
      if (count < 2) break;
      Add(name == settings.back() ? Severity::kWarning : Severity::kNote, "two-authorizations", name,
          "each request carries " + std::to_string(count) + " Authorization headers", "Keep one.");
    }
    if (basic && sink.basic_username.empty()) {
      Warn("no-username", "basic_password", "a password without basic_username", "Set basic_username.");
    } else if (basic && sink.basic_password.empty()) {
      Warn("no-password", "basic_username", "a user name without basic_password", "Set basic_password.");
    }
    if (sink.basic_username.find(':') != std::string::npos) {
      Warn("bad-username", "basic_username", "contains a colon, where the server ends the name (RFC 7617, section 2)",
           "Choose a name without a colon.");
    }
  }

  void CheckTransport() {
    const oxEventSinkConfig& sink = *group_->sink;
    if (const std::string reason = oxEventPlatformHttpPrepare(); !reason.empty()) {
      Warn("no-http-client", "endpoint_url", "the HTTP client cannot be loaded: " + reason,
           "Install liboxutil-http.so beside liboxutil.so.");
    }
    if (!UrlFault(sink.endpoint_url).empty()) return;
    const UrlParts url = ParseUrl(sink.endpoint_url);
    if (url.has_password) {
      Warn("secret-in-url", "endpoint_url", "contains a password, which error texts would show",
           "Use basic_username and basic_password.");
    }
    if (url.is_alertmanager) {
      Warn("alertmanager-url", "endpoint_url", "an Alertmanager refuses the documents of this sink",
           "Have the host post the result of oxEventFormatAlertmanagerRecord to this URL.");
    }
    if (!url.https && !url.loopback) {
      bool reported = false;
      for (const Value& value : group_->values) {
        if (!HoldsSecret(value) || value.setting->form == Form::kUrl) continue;
        if (!reported)
          Warn("secret-in-clear", "endpoint_url", "plain http sends the sink's secrets unencrypted", "Use https.");
        reported = true;
        Add(Severity::kNote, "secret-in-clear", value.setting->name, "is sent over plain http", "Use https.");
      }
    }
    if (!url.https) return;
    if (sink.type == Type::kCloudEventsHttp) {
      Warn("tls-unverified", "endpoint_url", "this section never verifies the endpoint's certificate",
           "Use sink\\webhook\\http with payload_mode cloudevents.");
    } else if (!sink.tls_verify) {
      Warn("tls-unverified", "tls_verify",
           "the certificate is not verified: an attacker on the path can read and change the events",
           "Set it to 1, and add the endpoint's CA to the system's certificates.");
    }
  }

  const SettingsFile& file_;
  std::vector<Finding>& findings_;
  const Group* group_ = nullptr;
};

}  // namespace

void CheckHttp(const SettingsFile& file, std::vector<Finding>* findings) {
  HttpChecker checker(file, findings);
  for (const Group& group : file.groups) checker.Check(group);
  checker.CheckAccess();
}
