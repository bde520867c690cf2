#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/oxEventWriter.h"

// The part of the Basic Encoding Rules (X.690) that SNMPv2c needs. Unless stated otherwise, each function adds to its
// last argument, and the only failure is std::bad_alloc. Threads: any.
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
void Wrap(Tag tag, size_t begin, oxEventWriter* out);

// Encodes a number that is not negative as an INTEGER or TimeTicks, in the fewest bytes.
void Integer(Tag tag, uint32_t value, oxEventWriter* out);

void OctetString(std::string_view text, oxEventWriter* out);

// Encodes an OID from its dotted form. Returns false, with nothing added, if it is not valid. The first two arcs
// always share one byte, even if the second is so large that X.690 requires more.
bool ObjectIdentifier(std::string_view dotted, std::string* out);

// Adds a variable binding of an encoded OID and an encoded value.
void AddVarBind(std::string_view oid, std::string_view value, oxEventWriter* list);

// Adds a variable binding of an encoded OID and a number.
void AddIntegerVarBind(std::string_view oid, Tag tag, uint32_t value, oxEventWriter* list);

// Adds a variable binding of an encoded OID and an OCTET STRING: `text`, truncated to max_length bytes.
void AddStringVarBind(std::string_view oid, std::string_view text, size_t max_length, oxEventWriter* list);

}  // namespace SnmpBer
