#include "sinks/oxEventSnmpBer.h"

#include <charconv>
#include <system_error>

namespace SnmpBer {

namespace {

// Big-endian without leading zeros; at least one byte.
void AppendBigEndian(size_t value, std::string* out) {
  int shift = 8 * (static_cast<int>(sizeof(value)) - 1);
  while (shift > 0 && value >> shift == 0) shift -= 8;
  for (; shift >= 0; shift -= 8) out->push_back(static_cast<char>(value >> shift & 0xFF));
}

void AppendBase128(uint32_t arc, std::string* out) {
  int shift = 28;
  while (shift > 0 && arc >> shift == 0) shift -= 7;
  for (; shift > 0; shift -= 7) out->push_back(static_cast<char>((arc >> shift & 0x7F) | 0x80));
  out->push_back(static_cast<char>(arc & 0x7F));
}

// Cuts the first arc off the dotted rest. False: it is no number of 32 bits.
bool NextArc(std::string_view* rest, uint32_t* arc) {
  const std::string_view text = rest->substr(0, rest->find('.'));
  rest->remove_prefix(text.size());
  const char* const end = text.data() + text.size();
  const auto [read_to, failure] = std::from_chars(text.data(), end, *arc);
  return failure == std::errc() && read_to == end;
}

// The same of the second arc and those that follow, which a dot precedes.
bool NextDottedArc(std::string_view* rest, uint32_t* arc) {
  if (rest->empty()) return false;
  rest->remove_prefix(1);
  return NextArc(rest, arc);
}

bool AppendArcs(std::string_view dotted, std::string* out) {
  uint32_t first = 0;
  uint32_t second = 0;
  if (!NextArc(&dotted, &first) || !NextDottedArc(&dotted, &second)) return false;
  if (first > 2 || (first < 2 && second > 39)) return false;
  out->push_back(static_cast<char>((first * 40 + second) & 0xFF));
  while (!dotted.empty()) {
    uint32_t arc = 0;
    if (!NextDottedArc(&dotted, &arc)) return false;
    AppendBase128(arc, out);
  }
  return true;
}

}  // namespace

void Wrap(Tag tag, size_t begin, std::string* out) {
  std::string head(1, static_cast<char>(tag));  // At most ten bytes: needs no memory.
  const size_t length = out->size() - begin;
  AppendBigEndian(length, &head);
  if (length > 127) head.insert(1, 1, static_cast<char>(0x80 | (head.size() - 1)));
  out->insert(begin, head);
}

void Integer(Tag tag, uint32_t value, std::string* out) {
  const size_t begin = out->size();
  AppendBigEndian(value, out);
  if (static_cast<unsigned char>((*out)[begin]) >= 0x80) out->insert(begin, 1, '\0');  // Else it were negative.
  Wrap(tag, begin, out);
}

void OctetString(std::string_view text, std::string* out) {
  const size_t begin = out->size();
  out->append(text);
  Wrap(kOctetString, begin, out);
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
  const size_t begin = list->size();
  list->append(oid).append(value);
  Wrap(kSequence, begin, list);
}

void AppendStringVarBind(std::string_view oid, std::string_view text, size_t max_length, std::string* list) {
  const size_t begin = list->size();
  list->append(oid);
  OctetString(text.substr(0, max_length), list);
  Wrap(kSequence, begin, list);
}

}  // namespace SnmpBer
