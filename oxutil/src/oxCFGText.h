// Conversion between raw XML 1.0 text, which contains references such as &lt; and &#13;, and plain strings.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

constexpr std::string_view kOxCFGWhiteSpace = " \t\r\n";  // XML 1.0, section 2.3.

// The reference at the start of `raw`. If there is none, `size` is 0; a stray "&" is text.
struct oxCFGReference {
  size_t size = 0;
  uint32_t code_point = 0;  // May be a character that XML forbids.
};
oxCFGReference oxCFGReferenceAt(std::string_view raw);

// Encodes the code point as UTF-8 and returns the number of bytes.
size_t oxCFGEncodeUTF8(uint32_t code_point, char (&bytes)[4]);

// Returns the position of the first reference to a character that XML forbids, such as &#0;, or npos.
size_t oxCFGFindBadReference(std::string_view raw);

// Returns the position of the first control byte that XML forbids, or npos.
size_t oxCFGFindControl(std::string_view bytes);

// Passes the decoded text of `raw` to callback(std::string_view), piece by piece. Does not allocate.
template <typename Callback>
void oxCFGDecode(std::string_view raw, Callback callback) {
  while (!raw.empty()) {
    const size_t plain = std::min(raw.find('&'), raw.size());
    callback(raw.substr(0, plain));
    raw.remove_prefix(plain);
    if (raw.empty()) return;
    const oxCFGReference reference = oxCFGReferenceAt(raw);
    char bytes[4] = {'&'};
    const size_t size = reference.size == 0 ? 1 : oxCFGEncodeUTF8(reference.code_point, bytes);
    callback(std::string_view(bytes, size));
    raw.remove_prefix(std::max<size_t>(reference.size, 1));
  }
}
std::string oxCFGDecoded(std::string_view raw);

// Encodes the text so that an XML parser returns it unchanged, although parsers turn a raw CR into LF, and raw white
// space in an attribute into spaces.
enum class oxCFGContext { kElement, kAttribute };
std::string oxCFGEncoded(std::string_view text, oxCFGContext context);

// Parses a decimal number, which may have white space around it, piece by piece.
class oxCFGNumberParser {
 public:
  void Append(std::string_view piece);
  // Returns nullopt unless the text is a number from 0 to 4294967295.
  std::optional<uint32_t> Number() const;

 private:
  static constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();

  bool is_valid_ = true;
  bool has_digits_ = false;
  bool has_ended_ = false;
  uint64_t number_ = 0;  // kMax + 1 means too large.
};
