// Writing values as text: plain, redacted under a schema, and in the normal
// form. One depth-guarded walk drives RapidJSON's writer for all three
// (RapidJSON's own Accept recurses without limit).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "DocumentInternal.h"

namespace ConfigStoreDocument {

using namespace detail;

namespace {

typedef rapidjson::Writer<rapidjson::StringBuffer> TextWriter;

struct Mode {
  bool redact;     // write kRedactedText for "sensitive" nodes
  bool normalise;  // sort members, integral doubles as integers
};

void WriteNumber(TextWriter& w, const Value& v, bool normalise) {
  if (v.IsDouble()) {
    const double d = v.GetDouble();
    if (!std::isfinite(d)) Fail("a number is not finite");
    if (normalise && d == std::trunc(d) && std::fabs(d) < 9007199254740992.0) {
      w.Int64(static_cast<int64_t>(d));
    } else {
      w.Double(d);
    }
  } else if (v.IsUint64()) {
    w.Uint64(v.GetUint64());
  } else {
    w.Int64(v.GetInt64());
  }
}

void Emit(TextWriter& w, const Value& v, const Value* node, const Mode& mode, int depth) {
  CheckDepth(depth);
  if (mode.redact && IsTrue(node, "sensitive")) {
    w.String(kRedactedText);
    return;
  }
  switch (v.GetType()) {
    case rapidjson::kNullType: w.Null(); return;
    case rapidjson::kFalseType: w.Bool(false); return;
    case rapidjson::kTrueType: w.Bool(true); return;
    case rapidjson::kNumberType: WriteNumber(w, v, mode.normalise); return;
    case rapidjson::kStringType: w.String(v.GetString(), v.GetStringLength()); return;
    case rapidjson::kArrayType: {
      const Value* items = mode.redact ? ItemsNode(node) : nullptr;
      w.StartArray();
      for (auto& e : v.GetArray()) Emit(w, e, items, mode, depth + 1);
      w.EndArray();
      return;
    }
    case rapidjson::kObjectType: {
      const Value* objectNode = mode.redact ? ObjectNode(node) : nullptr;
      std::vector<const rapidjson::Value::Member*> members;
      members.reserve(v.MemberCount());
      for (auto& m : v.GetObject()) members.push_back(&m);
      if (mode.normalise) {
        std::stable_sort(members.begin(), members.end(), [](const auto* x, const auto* y) {
          const size_t lx = x->name.GetStringLength(), ly = y->name.GetStringLength();
          const int c = std::memcmp(x->name.GetString(), y->name.GetString(), std::min(lx, ly));
          return c != 0 ? c < 0 : lx < ly;
        });
      }
      w.StartObject();
      for (const auto* m : members) {
        w.Key(m->name.GetString(), m->name.GetStringLength());
        const Value* prop = objectNode ? PropertyNode(objectNode, m->name, &v) : nullptr;
        if (mode.redact && !prop && PatternSensitive(objectNode)) {
          w.String(kRedactedText);
        } else {
          Emit(w, m->value, prop, mode, depth + 1);
        }
      }
      w.EndObject();
      return;
    }
  }
}

std::string Write(const Value& value, const Value* node, const Mode& mode) {
  rapidjson::StringBuffer buffer;
  TextWriter writer(buffer);
  Emit(writer, value, node, mode, 1);
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace

void SerializeValue(const rapidjson::Value& value, std::string& out) {
  out = Write(value, nullptr, Mode{false, false});
}

std::string SerializeValue(const rapidjson::Value& value) {
  return Write(value, nullptr, Mode{false, false});
}

std::string RedactAndSerializeValue(const rapidjson::Value& schemaNode,
                                    const rapidjson::Value& value) {
  return Write(value, &schemaNode, Mode{true, false});
}

std::string NormalizeValue(const rapidjson::Value& value) {
  return Write(value, nullptr, Mode{false, true});
}

}  // namespace ConfigStoreDocument
