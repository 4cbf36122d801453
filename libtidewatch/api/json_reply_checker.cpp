#include "libtidewatch/api/json_reply_checker.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

#include "libtidewatch/platform/log.h"

namespace libtidewatch {
namespace {

constexpr double kTwoTo64 = 18446744073709551616.0;

bool HasKind(const Json::Value& value, JsonReplyChecker::Kind kind) {
  switch (kind) {
    case JsonReplyChecker::Kind::kString:
      return value.isString();
    case JsonReplyChecker::Kind::kNumber:
      return JsonReplyChecker::IsNumber(value);
    case JsonReplyChecker::Kind::kBool:
      return value.isBool();
    case JsonReplyChecker::Kind::kObject:
      return value.isObject();
    case JsonReplyChecker::Kind::kArray:
      return value.isArray();
  }
  return false;
}

// The integer part of a finite real, modulo 2^64. fmod is exact, and so is every step here: a
// negative value is wrapped through its magnitude so that no rounding happens near 2^64.
uint64_t WrapReal(double real) {
  if (!std::isfinite(real)) return 0;
  double whole = std::trunc(real);
  if (whole >= 0) return static_cast<uint64_t>(std::fmod(whole, kTwoTo64));
  return 0 - static_cast<uint64_t>(std::fmod(-whole, kTwoTo64));
}

}  // namespace

bool JsonReplyChecker::IsNumber(const Json::Value& value) {
  switch (value.type()) {
    case Json::intValue:
    case Json::uintValue:
    case Json::realValue:
    case Json::booleanValue:
      return true;
    default:
      return false;
  }
}

uint64_t JsonReplyChecker::ToUInt64(const Json::Value& value) {
  switch (value.type()) {
    case Json::intValue: {
      Json::Int64 signed_value = value.asInt64();
      if (signed_value < 0) {
        throw std::runtime_error("Negative integer can not be converted to UInt64");
      }
      return static_cast<uint64_t>(signed_value);
    }
    case Json::uintValue:
      return value.asUInt64();
    case Json::realValue: {
      double whole = std::trunc(value.asDouble());
      // Also false for NaN, which the comparisons below would let through.
      if (!(whole >= 0 && whole < kTwoTo64)) throw std::runtime_error("Real out of UInt64 range");
      return static_cast<uint64_t>(whole);
    }
    case Json::booleanValue:
      return value.asBool() ? 1 : 0;
    default:
      throw std::runtime_error("Value is not convertible to UInt64");
  }
}

int64_t JsonReplyChecker::ToInt64(const Json::Value& value) {
  switch (value.type()) {
    case Json::intValue:
      return value.asInt64();
    case Json::uintValue:
      return static_cast<int64_t>(value.asUInt64());
    case Json::realValue:
      return static_cast<int64_t>(WrapReal(value.asDouble()));
    case Json::booleanValue:
      return value.asBool() ? 1 : 0;
    default:
      return 0;
  }
}

bool JsonReplyChecker::CheckMember(const Json::Value& object, const char* key, Kind kind) {
  const Json::Value* member = object.find(key, key + strlen(key));
  if (member == nullptr) {
    TW_LOGE("Key: [%s] is not found in JSON reply:", key);
    return false;
  }
  if (!HasKind(*member, kind)) {
    TW_LOGE("Type of [%s] is not correct in JSON reply:", key);
    return false;
  }
  return true;
}

}  // namespace libtidewatch
