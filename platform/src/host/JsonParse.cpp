// The depth-limited parse of outside JSON text. Carried by plugins: it needs
// nothing but RapidJSON.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

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
  bool String(const char* s, rapidjson::SizeType n, bool copy) { return Valid(s, n) && doc_.String(s, n, copy); }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) { return Valid(s, n) && doc_.Key(s, n, copy); }
  bool StartObject() { return Open() && doc_.StartObject(); }
  bool EndObject(rapidjson::SizeType n) { --depth_; return doc_.EndObject(n); }
  bool StartArray() { return Open() && doc_.StartArray(); }
  bool EndArray(rapidjson::SizeType n) { --depth_; return doc_.EndArray(n); }

  bool tooDeep = false;
  bool tooBig = false;
  bool surrogate = false;

 private:
  // The reader checks the text's bytes, but decodes an escaped low surrogate
  // without its high half ("\ude00") into bytes that are no UTF-8 (ED B0-BF):
  // every later parse of the written text would refuse them.
  bool Valid(const char* s, rapidjson::SizeType n) {
    const char* end = s + n;
    for (const char* p = s; (p = static_cast<const char*>(std::memchr(p, '\xED', end - p))) != nullptr; ++p) {
      if (p + 1 < end && static_cast<unsigned char>(p[1]) >= 0xA0) {
        surrogate = true;
        return false;
      }
    }
    return true;
  }

  bool Open() {
    if (++depth_ <= kMaxJsonNesting) return true;
    tooDeep = true;
    return false;
  }

  rapidjson::Document& doc_;
  unsigned depth_ = 0;
};

typedef std::function<void(const std::string&, const std::string&)> DuplicateFound;

// `path` is the pointer of `value`; extended in place while descending.
void FindDuplicates(const rapidjson::Value& value, std::string& path, const DuplicateFound& found) {
  if (value.IsArray()) {
    size_t index = 0;
    for (const rapidjson::Value& element : value.GetArray()) {
      const size_t length = path.size();
      path += '/';
      path += std::to_string(index++);
      FindDuplicates(element, path, found);
      path.resize(length);
    }
    return;
  }
  if (!value.IsObject()) return;
  if (value.MemberCount() > 1) {
    typedef std::pair<const char*, rapidjson::SizeType> Name;
    std::vector<Name> names;
    names.reserve(value.MemberCount());
    for (const auto& member : value.GetObject())
      names.emplace_back(member.name.GetString(), member.name.GetStringLength());
    auto less = [](const Name& a, const Name& b) {
      const int c = std::memcmp(a.first, b.first, std::min(a.second, b.second));
      return c != 0 ? c < 0 : a.second < b.second;
    };
    std::sort(names.begin(), names.end(), less);
    for (size_t i = 1; i < names.size(); ++i) {
      const bool same = !less(names[i - 1], names[i]);
      const bool firstRepeat = i < 2 || less(names[i - 2], names[i - 1]);
      if (same && firstRepeat) found(path, std::string(names[i].first, names[i].second));
    }
  }
  for (const auto& member : value.GetObject()) {
    const size_t length = path.size();
    path += '/';
    path += JsonPointerToken(member.name.GetString(), member.name.GetStringLength());
    FindDuplicates(member.value, path, found);
    path.resize(length);
  }
}

}  // namespace

std::string JsonPointerToken(const char* name, size_t length) {
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    if (name[i] == '~')
      out += "~0";
    else if (name[i] == '/')
      out += "~1";
    else
      out += name[i];
  }
  return out;
}

void FindDuplicateNames(const rapidjson::Value& value, const DuplicateFound& found) {
  std::string path;
  FindDuplicates(value, path, found);
}

JsonParseResult ParseJson(const char* text, size_t size, rapidjson::Document& doc,
                          DuplicateNames duplicates) {
  JsonParseResult result;
  auto generate = [&](rapidjson::Document& target) {
    rapidjson::MemoryStream memory(text, size);
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(memory);
    NestingLimit handler(target);
    rapidjson::Reader reader;
    reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(stream, handler);
    const std::string offset = " at offset " + std::to_string(reader.GetErrorOffset());
    if (handler.tooDeep) {
      result = {JsonParseResult::kTooDeep,
                "nested deeper than " + std::to_string(kMaxJsonNesting) + " levels" + offset};
    } else if (handler.surrogate) {
      result = {JsonParseResult::kNotJson,
                rapidjson::GetParseError_En(rapidjson::kParseErrorStringUnicodeSurrogateInvalid) + offset};
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
  if (result && duplicates == DuplicateNames::kRefuse) {
    FindDuplicateNames(doc, [&](const std::string& path, const std::string& name) {
      if (result)
        result = {JsonParseResult::kDuplicateName,
                  "duplicate member name \"" + name + "\" in the object at \"" + path + "\""};
    });
  }
  return result;
}

}  // namespace QenPlatform
