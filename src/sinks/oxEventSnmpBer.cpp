#include "sinks/oxEventSnmpBer.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <system_error>

namespace SnmpBer {

namespace {

constexpr size_t kShortForm = 127;  // Largest length that fits in one byte (X.690, section 8.1.3).

size_t ByteCount(size_t value) { return (static_cast<size_t>(std::bit_width(value)) + 7) / 8; }

void AppendBigEndian(size_t value, size_t count, std::string* out) {
  while (count-- > 0) out->push_back(static_cast<char>(value >> (8 * count) & 0xFF));
}

// The length takes the fewest bytes.
void AppendTagAndLength(Tag tag, size_t length, std::string* out) {
  out->push_back(static_cast<char>(tag));
  if (length <= kShortForm) return out->push_back(static_cast<char>(length));
  const size_t count = ByteCount(length);
  out->push_back(static_cast<char>(0x80 | count));
  AppendBigEndian(length, count, out);
}

size_t TagAndLengthSize(size_t length) { return length > kShortForm ? 2 + ByteCount(length) : 2; }

void AppendBase128(uint32_t arc, std::string* out) {
  int shift = 28;
  while (shift > 0 && arc >> shift == 0) shift -= 7;
  for (; shift > 0; shift -= 7) out->push_back(static_cast<char>((arc >> shift & 0x7F) | 0x80));
  out->push_back(static_cast<char>(arc & 0x7F));
}

// Removes the first arc from *rest. Returns false if the arc is not an unsigned 32-bit number.
bool ParseArc(std::string_view* rest, uint32_t* arc) {
  const std::string_view text = rest->substr(0, rest->find('.'));
  rest->remove_prefix(text.size());
  const char* const end = text.data() + text.size();
  const auto [read_to, failure] = std::from_chars(text.data(), end, *arc);
  return failure == std::errc() && read_to == end;
}

// Like ParseArc, for an arc that follows a dot: every arc but the first.
bool ParseNextArc(std::string_view* rest, uint32_t* arc) {
  if (rest->empty()) return false;
  rest->remove_prefix(1);
  return ParseArc(rest, arc);
}

bool AppendArcs(std::string_view dotted, std::string* out) {
  uint32_t first = 0;
  uint32_t second = 0;
  if (!ParseArc(&dotted, &first) || !ParseNextArc(&dotted, &second)) return false;
  if (first > 2 || (first < 2 && second > 39)) return false;
  out->push_back(static_cast<char>((first * 40 + second) & 0xFF));
  while (!dotted.empty()) {
    uint32_t arc = 0;
    if (!ParseNextArc(&dotted, &arc)) return false;
    AppendBase128(arc, out);
  }
  return true;
}

}  // namespace

void Wrap(Tag tag, size_t begin, std::string* out) {
  std::string head;  // At most ten bytes: allocates nothing.
  AppendTagAndLength(tag, out->size() - begin, &head);
  out->insert(begin, head);
}

void Integer(Tag tag, uint32_t value, std::string* out) {
  const size_t length = static_cast<size_t>(std::bit_width(value)) / 8 + 1;  // Including a sign bit.
  AppendTagAndLength(tag, length, out);
  AppendBigEndian(value, length, out);
}

void OctetString(std::string_view text, std::string* out) {
  AppendTagAndLength(kOctetString, text.size(), out);
  out->append(text);
}

bool ObjectIdentifier(std::string_view dotted, std::string* out) {
  const size_t begin = out->size();
  if (!AppendArcs(dotted, out)) {
    out->resize(begin);
    return false;
  }
  Wrap(kObjectIdentifier, begin, out);
  return true;
}

void AppendVarBind(std::string_view oid, std::string_view value, std::string* list) {
  AppendTagAndLength(kSequence, oid.size() + value.size(), list);
  list->append(oid).append(value);
}

void AppendStringVarBind(std::string_view oid, std::string_view text, size_t max_length, std::string* list) {
  text = text.substr(0, max_length);
  AppendTagAndLength(kSequence, oid.size() + TagAndLengthSize(text.size()) + text.size(), list);
  list->append(oid);
  OctetString(text, list);
}

}  // namespace SnmpBer
