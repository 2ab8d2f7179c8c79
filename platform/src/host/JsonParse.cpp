// The depth-limited parse of outside JSON text. Carried by plugins: it needs
// nothing but RapidJSON.
#include <cmath>
#include <string>

#include "QenJson.h"

namespace QenPlatform {
namespace {

// Forwards the reader's events to the document, stopping past the limit.
class NestingLimit {
 public:
  explicit NestingLimit(rapidjson::Document& doc) : doc_(doc) {}

  bool Null() { return doc_.Null(); }
  bool Bool(bool b) { return doc_.Bool(b); }
  bool Int(int i) { return doc_.Int(i); }
  bool Uint(unsigned u) { return doc_.Uint(u); }
  bool Int64(int64_t i) { return doc_.Int64(i); }
  bool Uint64(uint64_t u) { return doc_.Uint64(u); }
  // A number past the largest double reads as infinity, which no JSON
  // writer can write back: refused like a number too big to read at all.
  bool Double(double d) {
    if (std::isfinite(d)) return doc_.Double(d);
    tooBig = true;
    return false;
  }
  bool RawNumber(const char* s, rapidjson::SizeType n, bool copy) { return doc_.RawNumber(s, n, copy); }
  bool String(const char* s, rapidjson::SizeType n, bool copy) { return doc_.String(s, n, copy); }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) { return doc_.Key(s, n, copy); }
  bool StartObject() { return Open() && doc_.StartObject(); }
  bool EndObject(rapidjson::SizeType n) { --depth_; return doc_.EndObject(n); }
  bool StartArray() { return Open() && doc_.StartArray(); }
  bool EndArray(rapidjson::SizeType n) { --depth_; return doc_.EndArray(n); }

  bool tooDeep = false;
  bool tooBig = false;

 private:
  bool Open() {
    if (++depth_ <= kMaxJsonNesting) return true;
    tooDeep = true;
    return false;
  }

  rapidjson::Document& doc_;
  unsigned depth_ = 0;
};

}  // namespace

JsonParseResult ParseJson(const char* text, size_t size, rapidjson::Document& doc) {
  JsonParseResult result;
  auto generate = [&](rapidjson::Document& target) {
    rapidjson::MemoryStream memory(text, size);
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(memory);
    NestingLimit handler(target);
    rapidjson::Reader reader;
    reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
    const std::string offset = " at offset " + std::to_string(reader.GetErrorOffset());
    if (handler.tooDeep) {
      result = {JsonParseResult::kTooDeep,
                "nested deeper than " + std::to_string(kMaxJsonNesting) + " levels" + offset};
    } else if (handler.tooBig) {
      result = {JsonParseResult::kNotJson,
                rapidjson::GetParseError_En(rapidjson::kParseErrorNumberTooBig) + offset};
    } else if (reader.HasParseError()) {
      result = {JsonParseResult::kNotJson, rapidjson::GetParseError_En(reader.GetParseErrorCode()) + offset};
    } else if (memory.Tell() != size) {
      // The reader takes a NUL byte for the end of the text; JSON never
      // holds one, so anything from it on is trailing content.
      result = {JsonParseResult::kNotJson, std::string(rapidjson::GetParseError_En(
                                               rapidjson::kParseErrorDocumentRootNotSingular)) +
                                               " at offset " + std::to_string(memory.Tell())};
    }
    return static_cast<bool>(result);
  };
  doc.Populate(generate);
  return result;
}

}  // namespace QenPlatform
