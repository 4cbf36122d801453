// The checks and numeric reads applied to the service's JSON replies. Numbers follow the rules the
// command protocol was built on, which the installed JSON library no longer applies by itself:
// booleans count as numbers, and integer reads of a real truncate it toward zero.
#pragma once

#include <json/json.h>

#include <cstdint>

namespace libtidewatch {

class JsonReplyChecker {
 public:
  enum class Kind { kString, kNumber, kBool, kObject, kArray };

  // An integer, a real, or true / false (read as 1 / 0).
  static bool IsNumber(const Json::Value& value);

  // `value` read as unsigned 64-bit. Throws std::runtime_error for a negative integer ("Negative
  // integer can not be converted to UInt64"), a real whose integer part is negative or beyond
  // 64 bits, and anything that is not a number.
  static uint64_t ToUInt64(const Json::Value& value);

  // `value` read as signed 64-bit, never throwing: a real's integer part and an unsigned value
  // above the signed range are wrapped modulo 2^64, so the low bits are exact in every case.
  // Anything that is not a number reads as 0.
  static int64_t ToInt64(const Json::Value& value);

  // Whether `object` has member `key` of `kind`; logs which of the two failed. `object` must be a
  // JSON object.
  static bool CheckMember(const Json::Value& object, const char* key, Kind kind);
};

}  // namespace libtidewatch
