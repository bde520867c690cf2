#include "sinks/oxEventSnmpBer.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <system_error>

namespace SnmpBer {

namespace {

constexpr size_t kMaxHead = 2 + sizeof(size_t);  // Tag and length.
constexpr size_t kShortForm = 127;               // Largest length that fits in one byte (X.690, section 8.1.3).

size_t ByteCount(size_t value) { return (static_cast<size_t>(std::bit_width(value)) + 7) / 8; }

char* WriteBigEndian(size_t value, size_t count, char* at) {
  while (count-- > 0) *at++ = static_cast<char>(value >> (8 * count) & 0xFF);
  return at;
}

// The length takes the fewest bytes. Writes up to kMaxHead bytes.
char* WriteTagAndLength(Tag tag, size_t length, char* at) {
  *at++ = static_cast<char>(tag);
  const size_t count = ByteCount(length);
  if (length > kShortForm) *at++ = static_cast<char>(0x80 | count);
  return WriteBigEndian(length, std::max<size_t>(count, 1), at);
}

size_t TagAndLengthSize(size_t length) { return length > kShortForm ? 2 + ByteCount(length) : 2; }

void AddBase128(uint32_t arc, oxEventWriter* out) {
  int shift = 28;
  while (shift > 0 && arc >> shift == 0) shift -= 7;
  for (; shift > 0; shift -= 7) out->Add(static_cast<char>((arc >> shift & 0x7F) | 0x80));
  out->Add(static_cast<char>(arc & 0x7F));
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

bool AddArcs(std::string_view dotted, oxEventWriter* out) {
  uint32_t first = 0;
  uint32_t second = 0;
  if (!ParseArc(&dotted, &first) || !ParseNextArc(&dotted, &second)) return false;
  if (first > 2 || (first < 2 && second > 39)) return false;
  out->Add(static_cast<char>((first * 40 + second) & 0xFF));
  while (!dotted.empty()) {
    uint32_t arc = 0;
    if (!ParseNextArc(&dotted, &arc)) return false;
    AddBase128(arc, out);
  }
  return true;
}

}  // namespace

void Wrap(Tag tag, size_t begin, oxEventWriter* out) {
  char head[kMaxHead];
  const size_t content = out->Size() - begin;
  const auto size = static_cast<size_t>(WriteTagAndLength(tag, content, head) - head);
  char* const end = out->Room(size);
  std::memmove(end - content + size, end - content, content);
  std::memcpy(end - content, head, size);
  out->Advance(end + size);
}

void Integer(Tag tag, uint32_t value, oxEventWriter* out) {
  const size_t length = static_cast<size_t>(std::bit_width(value)) / 8 + 1;  // Including a sign bit.
  char* const at = WriteTagAndLength(tag, length, out->Room(kMaxHead + length));
  out->Advance(WriteBigEndian(value, length, at));
}

void OctetString(std::string_view text, oxEventWriter* out) {
  char* const at = WriteTagAndLength(kOctetString, text.size(), out->Room(kMaxHead + text.size()));
  out->Advance(oxEventWriteText(text, at));
}

bool ObjectIdentifier(std::string_view dotted, std::string* out) {
  oxEventWriter writer(out);
  const size_t begin = writer.Size();
  if (!AddArcs(dotted, &writer)) {
    writer.Truncate(begin);
    return false;
  }
  Wrap(kObjectIdentifier, begin, &writer);
  return true;
}

void AddVarBind(std::string_view oid, std::string_view value, oxEventWriter* list) {
  const size_t content = oid.size() + value.size();
  char* at = WriteTagAndLength(kSequence, content, list->Room(kMaxHead + content));
  at = oxEventWriteText(oid, at);
  list->Advance(oxEventWriteText(value, at));
}

void AddIntegerVarBind(std::string_view oid, Tag tag, uint32_t value, oxEventWriter* list) {
  const size_t begin = list->Size();
  list->Add(oid);
  Integer(tag, value, list);
  Wrap(kSequence, begin, list);
}

void AddStringVarBind(std::string_view oid, std::string_view text, size_t max_length, oxEventWriter* list) {
  text = text.substr(0, max_length);
  const size_t content = oid.size() + TagAndLengthSize(text.size()) + text.size();
  char* at = WriteTagAndLength(kSequence, content, list->Room(kMaxHead + content));
  at = oxEventWriteText(oid, at);
  at = WriteTagAndLength(kOctetString, text.size(), at);
  list->Advance(oxEventWriteText(text, at));
}

}  // namespace SnmpBer
