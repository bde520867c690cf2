#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The Basic Encoding Rules (X.690) as far as SNMPv2c needs them. Each appends to *out, which a caller may reuse. They
// fail only by running out of memory, unless said otherwise. Any thread.
namespace SnmpBer {

enum Tag : uint8_t {  // RFC 3416, section 3.
  kInteger = 0x02,
  kOctetString = 0x04,
  kObjectIdentifier = 0x06,
  kSequence = 0x30,
  kTimeTicks = 0x43,
  kSnmpV2Trap = 0xA7,
};

// Makes what stands in *out from `begin` to the end the content of a TLV, with its length in the fewest bytes.
void Wrap(Tag tag, size_t begin, std::string* out);

// INTEGER and TimeTicks: never negative here, in the fewest bytes.
void Integer(Tag tag, uint32_t value, std::string* out);

void OctetString(std::string_view text, std::string* out);

// From the dotted form. False, with *out unchanged: no valid OID. The first two arcs share one byte, also where the
// second is so large that X.690 wants two.
bool ObjectIdentifier(std::string_view dotted, std::string* out);

// A variable binding of an encoded OID and an encoded value.
void AppendVarBind(std::string_view oid, std::string_view value, std::string* list);

// The same of an OCTET STRING, cut to max_length bytes.
void AppendStringVarBind(std::string_view oid, std::string_view text, size_t max_length, std::string* list);

}  // namespace SnmpBer
