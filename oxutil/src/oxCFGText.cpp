#include "oxCFGText.h"

#include <charconv>
#include <iterator>

namespace {

constexpr uint32_t kMaxCodePoint = 0x10FFFF;

struct NamedReference {
  std::string_view text;
  char character;
};
constexpr NamedReference kNamedReferences[] = {
    {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};

struct Escape {
  char character;
  std::string_view reference;
  bool only_in_attributes = false;
};
constexpr Escape kEscapes[] = {{'&', "&amp;"},        {'<', "&lt;"},        {'>', "&gt;"},        {'\r', "&#13;"},
                               {'"', "&quot;", true}, {'\t', "&#9;", true}, {'\n', "&#10;", true}};

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 && kOxCFGWhiteSpace.find(c) == std::string_view::npos;
}

// XML 1.0, section 2.2.
bool IsCharacter(uint32_t code_point) {
  if (code_point < 0x20) return !IsControl(static_cast<char>(code_point));
  if (code_point >= 0xD800 && code_point <= 0xDFFF) return false;  // Surrogates.
  return code_point <= kMaxCodePoint && code_point != 0xFFFE && code_point != 0xFFFF;
}

}  // namespace

oxCFGReference oxCFGReferenceAt(std::string_view raw) {
  for (const NamedReference& name : kNamedReferences) {
    if (raw.starts_with(name.text)) return {name.text.size(), static_cast<uint32_t>(name.character)};
  }
  if (!raw.starts_with("&#")) return {};
  const bool is_hex = raw.substr(2).starts_with('x');
  const char* const digits = raw.data() + (is_hex ? 3 : 2);
  const char* const end = raw.data() + raw.size();
  uint32_t code_point = 0;
  const auto [digits_end, error] = std::from_chars(digits, end, code_point, is_hex ? 16 : 10);
  if (digits_end == digits || digits_end == end || *digits_end != ';') return {};
  if (error != std::errc()) code_point = kMaxCodePoint + 1;
  return {static_cast<size_t>(digits_end - raw.data()) + 1, code_point};
}

size_t oxCFGEncodeUTF8(uint32_t code_point, char (&bytes)[4]) {
  if (code_point < 0x80) {
    bytes[0] = static_cast<char>(code_point);
    return 1;
  }
  const size_t size = code_point < 0x800 ? 2 : code_point < 0x10000 ? 3 : 4;
  for (size_t i = size - 1; i > 0; --i, code_point >>= 6) bytes[i] = static_cast<char>(0x80 | (code_point & 0x3F));
  bytes[0] = static_cast<char>((0xF00 >> size) | code_point);
  return size;
}

size_t oxCFGFindBadReference(std::string_view raw) {
  for (size_t at = raw.find('&'); at != raw.npos; at = raw.find('&', at + 1)) {
    const oxCFGReference reference = oxCFGReferenceAt(raw.substr(at));
    if (reference.size != 0 && !IsCharacter(reference.code_point)) return at;
  }
  return raw.npos;
}

size_t oxCFGFindControl(std::string_view bytes) {
  const auto control = std::find_if(bytes.begin(), bytes.end(), IsControl);
  return control == bytes.end() ? bytes.npos : static_cast<size_t>(control - bytes.begin());
}

std::string oxCFGDecoded(std::string_view raw) {
  std::string text;
  oxCFGDecode(raw, [&](std::string_view piece) { text += piece; });
  return text;
}

std::string oxCFGEncoded(std::string_view text, oxCFGContext context) {
  std::string raw;
  raw.reserve(text.size());
  for (const char c : text) {
    const auto escape = std::find_if(std::begin(kEscapes), std::end(kEscapes), [&](const Escape& e) {
      return e.character == c && (!e.only_in_attributes || context == oxCFGContext::kAttribute);
    });
    if (escape == std::end(kEscapes)) {
      raw += c;
    } else {
      raw += escape->reference;
    }
  }
  return raw;
}

void oxCFGNumberParser::Append(std::string_view piece) {
  for (const char c : piece) {
    if (kOxCFGWhiteSpace.find(c) != std::string_view::npos) {
      has_ended_ = has_digits_;
    } else if (c >= '0' && c <= '9' && !has_ended_) {
      has_digits_ = true;
      number_ = std::min(number_ * 10 + static_cast<uint64_t>(c - '0'), kMax + 1);
    } else {
      is_valid_ = false;
    }
  }
}

std::optional<uint32_t> oxCFGNumberParser::Number() const {
  if (!is_valid_ || !has_digits_ || number_ > kMax) return std::nullopt;
  return static_cast<uint32_t>(number_);
}
