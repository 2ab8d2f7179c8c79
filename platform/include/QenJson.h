// The project's one RapidJSON configuration. Include this header instead of
// any <rapidjson/...> header so that every translation unit agrees on the
// definition of RAPIDJSON_ASSERT and RAPIDJSON_HAS_STDSTRING (mixing them is
// an ODR violation).
//
// RapidJSON's internal checks (wrong type for an accessor, missing member for
// operator[], ...) throw QenConfigStore::ConfigStoreException with code 1082
// and the text  JSON error:"<file>":<line>: <condition>  instead of aborting.
#pragma once

#include <functional>
#include <string>

#ifdef RAPIDJSON_ASSERT
#error "include QenJson.h before any RapidJSON header"
#endif

#define RAPIDJSON_HAS_STDSTRING 1

namespace QenPlatform {
[[noreturn]] void ThrowJsonError(const char* file, int line, const char* condition);
}

#define RAPIDJSON_ASSERT(x) \
  do { if (!(x)) ::QenPlatform::ThrowJsonError(__FILE__, __LINE__, #x); } while (0)

#include <rapidjson/allocators.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/pointer.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace QenPlatform {
// Error code of a failed RapidJSON structural check.
constexpr int kJsonErrorCode = 1082;

// Two JSON numbers are equal as doubles when either is a floating-point
// value, otherwise by their exact integer value. Use this, not RapidJSON's
// ==, which compares integers by their 64-bit pattern (-1 would equal
// 18446744073709551615).
inline bool JsonNumbersEqual(const rapidjson::Value& a, const rapidjson::Value& b) {
  if (a.IsDouble() || b.IsDouble()) {
    const double x = a.GetDouble(), y = b.GetDouble();
    return x >= y && x <= y;
  }
  if (a.IsInt64() && b.IsInt64()) return a.GetInt64() == b.GetInt64();
  return a.IsUint64() && b.IsUint64() && a.GetUint64() == b.GetUint64();
}

// Text from outside (files, stored values, plugin results) nested deeper
// than this is refused: walks, writers and comparisons recurse per level.
constexpr unsigned kMaxJsonNesting = 512;

// The outcome of ParseJson.
struct JsonParseResult {
  enum Status { kOk, kNotJson, kTooDeep, kDuplicateName } status = kOk;
  std::string reason;  // unless kOk: what is wrong and at which offset
  explicit operator bool() const { return status == kOk; }
};

// Whether ParseJson accepts an object that names a member twice. The DOM
// keeps both copies, but lookups find the first while walks see both, so
// such a document means different things to different readers: refuse it,
// unless the caller reports the copies itself (validation).
enum class DuplicateNames { kRefuse, kKeep };

// The one parse of JSON text that comes from outside: one root value with
// nothing but white space around it, valid UTF-8 throughout (the reason of
// a failure names the byte offset of the first bad byte), nesting at most
// kMaxJsonNesting deep, no object naming a member twice (kDuplicateName, the
// reason names the member and the JSON Pointer of its object) unless
// `duplicates` is kKeep. The reader is iterative, so no text can exhaust the
// stack. On failure `doc` is left as it was (a kDuplicateName failure leaves
// it parsed). Reentrant; uses `doc`'s allocator.
JsonParseResult ParseJson(const char* text, size_t size, rapidjson::Document& doc,
                          DuplicateNames duplicates = DuplicateNames::kRefuse);
inline JsonParseResult ParseJson(const std::string& text, rapidjson::Document& doc,
                                 DuplicateNames duplicates = DuplicateNames::kRefuse) {
  return ParseJson(text.data(), text.size(), doc, duplicates);
}

// Calls `found` once per member name that an object of `value` holds more
// than once, with the JSON Pointer (RFC 6901) of that object relative to
// `value` ("" for `value` itself) and the name; objects in document order,
// names within one object in byte order. `value` must be nested at most
// kMaxJsonNesting deep (what ParseJson gives).
void FindDuplicateNames(const rapidjson::Value& value,
                        const std::function<void(const std::string& path, const std::string& name)>& found);

// A member name as a JSON Pointer token ("~" and "/" escaped).
std::string JsonPointerToken(const char* name, size_t length);

// The value as compact JSON text (no white space).
inline std::string CompactJson(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

// The value as pretty JSON text: three-space indent, the documents' form.
inline std::string PrettyJson(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 3);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

// Equality of two scalars (null, booleans, numbers, strings) by the same rule.
inline bool JsonScalarsEqual(const rapidjson::Value& a, const rapidjson::Value& b) {
  if (a.GetType() != b.GetType()) return false;
  if (a.IsNumber()) return JsonNumbersEqual(a, b);
  if (a.IsString()) return a == b;
  return true;  // null, false, true: equal by type
}
}
