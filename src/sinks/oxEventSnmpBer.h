#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The part of the Basic Encoding Rules (X.690) that SNMPv2c needs. Unless stated otherwise, each function appends to
// its last argument, which a caller may reuse, and the only failure is std::bad_alloc. Threads: any.
namespace SnmpBer {

enum Tag : uint8_t {  // RFC 3416, section 3.
  kInteger = 0x02,
  kOctetString = 0x04,
  kObjectIdentifier = 0x06,
  kSequence = 0x30,
  kTimeTicks = 0x43,
  kSnmpV2Trap = 0xA7,
};

// Turns the bytes of *out from `begin` to the end into the content of a TLV, whose length takes the fewest bytes.
void Wrap(Tag tag, size_t begin, std::string* out);

// Encodes a number that is not negative as an INTEGER or TimeTicks, in the fewest bytes.
void Integer(Tag tag, uint32_t value, std::string* out);

void OctetString(std::string_view text, std::string* out);

// Encodes an OID from its dotted form. Returns false, with *out unchanged, if it is not valid. The first two arcs
// always share one byte, even if the second is so large that X.690 requires more.
bool ObjectIdentifier(std::string_view dotted, std::string* out);

// Appends a variable binding of an encoded OID and an encoded value.
void AppendVarBind(std::string_view oid, std::string_view value, std::string* list);

// Appends a variable binding of an encoded OID and an OCTET STRING: `text`, truncated to max_length bytes.
void AppendStringVarBind(std::string_view oid, std::string_view text, size_t max_length, std::string* list);

}  // namespace SnmpBer
