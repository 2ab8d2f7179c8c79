// Parsing JSON text into documents, apart from the file and store helpers so
// that code which only parses (plugins) carries nothing else.
#include "common/parse.h"

#include "configmanager/common.h"

namespace QenConfigManager {
namespace {

// Deeper documents are refused as unparsable: the drift walk, the writers and
// the comparisons all recurse per level, so unbounded nesting would let one
// hostile document overflow the stack.
constexpr unsigned kMaxNesting = 512;

// Forwards the reader's events to the document, stopping past kMaxNesting.
class NestingLimit {
 public:
  explicit NestingLimit(rapidjson::Document& doc) : doc_(doc) {}

  bool Null() { return doc_.Null(); }
  bool Bool(bool b) { return doc_.Bool(b); }
  bool Int(int i) { return doc_.Int(i); }
  bool Uint(unsigned u) { return doc_.Uint(u); }
  bool Int64(int64_t i) { return doc_.Int64(i); }
  bool Uint64(uint64_t u) { return doc_.Uint64(u); }
  bool Double(double d) { return doc_.Double(d); }
  bool RawNumber(const char* s, rapidjson::SizeType n, bool copy) { return doc_.RawNumber(s, n, copy); }
  bool String(const char* s, rapidjson::SizeType n, bool copy) { return doc_.String(s, n, copy); }
  bool Key(const char* s, rapidjson::SizeType n, bool copy) { return doc_.Key(s, n, copy); }
  bool StartObject() { return ++depth_ <= kMaxNesting && doc_.StartObject(); }
  bool EndObject(rapidjson::SizeType n) { --depth_; return doc_.EndObject(n); }
  bool StartArray() { return ++depth_ <= kMaxNesting && doc_.StartArray(); }
  bool EndArray(rapidjson::SizeType n) { --depth_; return doc_.EndArray(n); }

 private:
  rapidjson::Document& doc_;
  unsigned depth_ = 0;
};

}  // namespace

bool ParseJsonText(const std::string& text, rapidjson::Document& doc) {
  bool ok = false;
  auto generate = [&text, &ok](rapidjson::Document& target) {
    rapidjson::MemoryStream memory(text.data(), text.size());
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(memory);
    NestingLimit handler(target);
    rapidjson::Reader reader;
    ok = !reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler).IsError();
    // The reader takes a NUL byte for the end of the text; JSON never holds
    // one, so anything after it is trailing content.
    ok = ok && memory.Tell() == text.size();
    return ok;
  };
  doc.Populate(generate);
  return ok;
}

void ParseDocument(const std::string& text, rapidjson::Document& doc) {
  if (!ParseJsonText(text, doc)) ThrowException<InvalidArgumentException>(PARSE_ERROR);
}

}  // namespace QenConfigManager
