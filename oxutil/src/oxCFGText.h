// Text as an XML 1.0 document holds it, with references such as &lt; and &#13;, and as the store gives it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

constexpr std::string_view kOxCFGWhiteSpace = " \t\r\n";  // XML 1.0, section 2.3.

// A reference at the beginning of `raw`. `size` is 0 where there is none: a stray "&" is text.
struct oxCFGReference {
  size_t size = 0;
  uint32_t code_point = 0;  // May be one that no document can hold.
};
oxCFGReference oxCFGReferenceAt(std::string_view raw);

// Writes the code point's UTF-8 and returns its size.
size_t oxCFGEncodeUTF8(uint32_t code_point, char (&bytes)[4]);

// Where `raw` first refers to a character that no document can hold, such as &#0;. npos: nowhere.
size_t oxCFGFindBadReference(std::string_view raw);

// Where the first control byte stands that no document can hold. npos: nowhere.
size_t oxCFGFindControl(std::string_view bytes);

// Calls take(std::string_view) with the text of `raw`, piece by piece. Allocates nothing.
template <typename Take>
void oxCFGDecode(std::string_view raw, Take take) {
  while (!raw.empty()) {
    const size_t plain = std::min(raw.find('&'), raw.size());
    if (plain > 0) take(raw.substr(0, plain));
    raw.remove_prefix(plain);
    if (raw.empty()) return;
    const oxCFGReference reference = oxCFGReferenceAt(raw);
    char bytes[4] = {'&'};
    const size_t size = reference.size == 0 ? 1 : oxCFGEncodeUTF8(reference.code_point, bytes);
    take(std::string_view(bytes, size));
    raw.remove_prefix(std::max<size_t>(reference.size, 1));
  }
}
std::string oxCFGDecoded(std::string_view raw);

// How a document holds the text, so that every reader gets it back: also those that turn a raw CR into LF, and
// within an attribute every white space into a blank.
enum class oxCFGPlace { kElement, kAttribute };
std::string oxCFGEncoded(std::string_view text, oxCFGPlace place);

// Takes a decimal number with white space around it, piece by piece.
class oxCFGNumberParser {
 public:
  void Append(std::string_view piece);
  // None where the text is no number from 0 to 4294967295.
  std::optional<uint32_t> Number() const;

 private:
  static constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();

  bool is_valid_ = true;
  bool has_digits_ = false;
  bool has_ended_ = false;
  uint64_t number_ = 0;  // kMax + 1 stands for all above.
};
