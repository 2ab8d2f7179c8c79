// The store description: the whole store as one JSON document, for seeding
// a host (qenconfig store load) and inspecting it (qenconfig store dump).
#include <map>
#include <tuple>

#include "StoreRows.h"

namespace QenConfigStore {

using namespace detail;

namespace {

// Sections of a scope that hold object values, with the column they fill.
enum Column { DEFAULT, CURRENT };
struct Section {
  const char* name;
  Column column;
  const char* category;
};
const Section kSections[] = {
    {"defaults", DEFAULT, "user"},
    {"current", CURRENT, "user"},
    {"vital", CURRENT, "vital"},
    {"cached", CURRENT, "cached"},
};

struct Row {
  std::string category;
  std::string defaultValue, currentValue, autoconf;
  bool hasDefault = false, hasCurrent = false, hasAutoconf = false;
  int64_t ordinal = 0;
};
typedef std::tuple<std::string, std::string, std::string, std::string> RowKey;

const rapidjson::Value* Member(const rapidjson::Value& parent, const char* name,
                               const std::string& where) {
  auto it = parent.FindMember(name);
  if (it == parent.MemberEnd()) return nullptr;
  if (!it->value.IsObject())
    Fail(STORE_BAD_VALUE, "Store description: \"" + where + name + "\" is not an object");
  return &it->value;
}

void LoadScope(Impl& impl, const rapidjson::Value& scopeDesc, const char* scope,
               const std::string& where) {
  std::map<RowKey, Row> rows;
  InstanceResolver resolver;
  for (const Section& section : kSections) {
    const rapidjson::Value* values = Member(scopeDesc, section.name, where);
    if (!values) continue;
    ForEachObject(*values, "Store description: \"" + where + section.name + "\"", resolver,
                  [&](DocObject& o) {
      Row& row = rows[RowKey(o.component, o.group, o.key, o.identifier)];
      if (row.category.empty()) {
        row.category = section.category;
        row.ordinal = o.ordinal;
      } else if (row.category != section.category) {
        Fail(STORE_BAD_VALUE, "Store description: " +
                                  ConfigStoreObjectId(o.key, o.group, o.component, o.identifier).toString() +
                                  " appears as " + row.category + " and as " + section.category +
                                  " configuration");
      }
      if (o.text == kDeleteDefault && section.column != CURRENT)
        Fail(STORE_BAD_VALUE, "Store description: \"DELETE_DEFAULT\" is only a current value (" +
                                  ConfigStoreObjectId(o.key, o.group, o.component).toString() + ")");
      if (section.column == DEFAULT) {
        row.defaultValue = o.text;
        row.hasDefault = true;
      } else {
        row.currentValue = o.text;
        row.hasCurrent = true;
      }
    });
  }
  if (const rapidjson::Value* autoconf = Member(scopeDesc, "autoconf", where)) {
    for (auto& comp : autoconf->GetObject()) {
      if (!comp.value.IsObject()) Fail(STORE_BAD_VALUE, "Store description: \"" + where + "autoconf\" must hold components of groups of keys");
      for (auto& grp : comp.value.GetObject()) {
        if (!grp.value.IsObject()) Fail(STORE_BAD_VALUE, "Store description: \"" + where + "autoconf\" must hold components of groups of keys");
        for (auto& key : grp.value.GetObject()) {
          std::string c = comp.name.GetString(), g = grp.name.GetString(), k = key.name.GetString();
          std::string text = QenPlatform::CompactJson(key.value);
          bool found = false;
          for (auto it = rows.lower_bound(RowKey(c, g, k, "")); it != rows.end() &&
               std::get<0>(it->first) == c && std::get<1>(it->first) == g && std::get<2>(it->first) == k; ++it) {
            it->second.autoconf = text;
            it->second.hasAutoconf = found = true;
          }
          if (!found) {
            Row& row = rows[RowKey(c, g, k, "")];
            row.category = "user";
            row.autoconf = text;
            row.hasAutoconf = true;
            row.ordinal = 1;
          }
        }
      }
    }
  }
  for (const auto& entry : rows) {
    const Row& r = entry.second;
    Cursor c(impl,
             "INSERT INTO config_object(scope, component, grp, name, identifier, category,"
             " default_value, current_value, autoconf_value, ordinal)"
             " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)");
    c.Bind(1, std::string(scope)).Bind(2, std::get<0>(entry.first)).Bind(3, std::get<1>(entry.first));
    c.Bind(4, std::get<2>(entry.first)).Bind(5, std::get<3>(entry.first)).Bind(6, r.category);
    if (r.hasDefault) c.Bind(7, r.defaultValue); else c.BindNull(7);
    if (r.hasCurrent) c.Bind(8, r.currentValue); else c.BindNull(8);
    if (r.hasAutoconf) c.Bind(9, r.autoconf); else c.BindNull(9);
    c.Bind(10, r.ordinal).Run();
  }
  if (const rapidjson::Value* desired = Member(scopeDesc, "desired", where))
    StageDocument(impl, scope, *desired, "Store description: \"" + where + "desired\"");
  auto deletes = scopeDesc.FindMember("desiredDeletes");
  if (deletes != scopeDesc.MemberEnd()) {
    const char* message = "\" must be an array of {\"component\", \"group\", \"key\"} objects";
    if (!deletes->value.IsArray()) Fail(STORE_BAD_VALUE, "Store description: \"" + where + "desiredDeletes" + message);
    for (auto& d : deletes->value.GetArray()) {
      if (!d.IsObject() || !d.HasMember("component") || !d["component"].IsString() ||
          !d.HasMember("group") || !d["group"].IsString() || !d.HasMember("key") || !d["key"].IsString())
        Fail(STORE_BAD_VALUE, "Store description: \"" + where + "desiredDeletes" + message);
      Cursor c(impl,
               "INSERT OR REPLACE INTO desired_object(scope, component, grp, name, identifier, op, value, ordinal)"
               " VALUES(?1, ?2, ?3, ?4, '', 'DELETE', NULL, 0)");
      c.Bind(1, std::string(scope)).Bind(2, std::string(d["component"].GetString()));
      c.Bind(3, std::string(d["group"].GetString())).Bind(4, std::string(d["key"].GetString())).Run();
    }
  }
  // Staged values overlay the current configuration unless the description
  // says they are a whole document: a forgotten mode never empties a host.
  std::string desiredMode = "overlay";
  auto mode = scopeDesc.FindMember("desiredMode");
  if (mode != scopeDesc.MemberEnd()) {
    if (!mode->value.IsString() || (mode->value.GetString() != std::string("document") &&
                                    mode->value.GetString() != std::string("overlay")))
      Fail(STORE_BAD_VALUE, "Store description: \"" + where + "desiredMode\" must be \"document\" or \"overlay\"");
    desiredMode = mode->value.GetString();
  }
  SetMeta(impl, std::string("desiredMode.") + scope, desiredMode);
}

// Adds `value` under component/group/key of `target`: a singleton replaces,
// an instance is appended to the key's array.
void Place(rapidjson::Value& target, const std::string& c, const std::string& g,
           const std::string& k, bool instance, rapidjson::Value& value,
           rapidjson::Document::AllocatorType& a) {
  auto child = [&](rapidjson::Value& parent, const std::string& name) -> rapidjson::Value& {
    auto it = parent.FindMember(name);
    if (it == parent.MemberEnd()) {
      parent.AddMember(rapidjson::Value(name, a), rapidjson::Value(rapidjson::kObjectType), a);
      it = parent.MemberEnd() - 1;
    }
    return it->value;
  };
  rapidjson::Value& grp = child(child(target, c), g);
  if (!instance) {
    grp.AddMember(rapidjson::Value(k, a), value, a);
    return;
  }
  auto it = grp.FindMember(k);
  if (it == grp.MemberEnd()) {
    grp.AddMember(rapidjson::Value(k, a), rapidjson::Value(rapidjson::kArrayType), a);
    it = grp.MemberEnd() - 1;
  }
  it->value.PushBack(value, a);
}

void ParseValue(const std::string& text, rapidjson::Value& out, rapidjson::Document::AllocatorType& a,
                const std::string& what) {
  if (text == kDeleteDefault) {
    out.SetString(kDeleteDefault, a);
    return;
  }
  rapidjson::Document parsed(&a);
  if (!QenPlatform::ParseJson(text, parsed))
    Fail(STORE_READ_FAILED, "Configuration store holds a value that is not JSON: " + what);
  out.CopyFrom(parsed, a);
}

void DumpScope(Impl& impl, const char* scope, rapidjson::Value& out, rapidjson::Document::AllocatorType& a) {
  out.SetObject();
  for (const char* name : {"defaults", "current", "vital", "cached", "autoconf", "desired"})
    out.AddMember(rapidjson::StringRef(name), rapidjson::Value(rapidjson::kObjectType), a);
  {
    // A key is dumped as an array when any of its rows has an identifier.
    Cursor c(impl,
             "SELECT component, grp, name, identifier, category, default_value, current_value,"
             " autoconf_value, EXISTS (SELECT 1 FROM config_object i WHERE i.scope = o.scope AND"
             " i.component = o.component AND i.grp = o.grp AND i.name = o.name AND i.identifier <> '')"
             " FROM config_object o WHERE scope = ?1 ORDER BY component, grp, name, ordinal, identifier");
    c.Bind(1, std::string(scope));
    std::string lastKey;
    while (c.Step()) {
      std::string comp = c.Text(0), grp = c.Text(1), key = c.Text(2), id = c.Text(3), category = c.Text(4);
      bool instance = c.Int(8) != 0;
      std::string what = ConfigStoreObjectId(key, grp, comp, id).toString();
      if (!c.IsNull(5)) {
        rapidjson::Value v;
        ParseValue(c.Text(5), v, a, what);
        Place(out["defaults"], comp, grp, key, instance, v, a);
      }
      if (!c.IsNull(6)) {
        rapidjson::Value v;
        ParseValue(c.Text(6), v, a, what);
        const char* section = category == "vital" ? "vital" : category == "cached" ? "cached" : "current";
        Place(out[section], comp, grp, key, instance && v.IsObject(), v, a);
      }
      std::string path = comp + "\x1f" + grp + "\x1f" + key;
      if (!c.IsNull(7) && path != lastKey) {
        rapidjson::Value v;
        ParseValue(c.Text(7), v, a, what);
        Place(out["autoconf"], comp, grp, key, false, v, a);
        lastKey = path;
      }
    }
  }
  std::string mode = GetMeta(impl, std::string("desiredMode.") + scope, "overlay");
  out.AddMember("desiredMode", rapidjson::Value(mode, a), a);
  rapidjson::Value deletes(rapidjson::kArrayType);
  Cursor c(impl,
           "SELECT component, grp, name, identifier, op, value, EXISTS (SELECT 1 FROM desired_object i"
           " WHERE i.scope = d.scope AND i.component = d.component AND i.grp = d.grp AND"
           " i.name = d.name AND i.identifier <> '')"
           " FROM desired_object d WHERE scope = ?1 ORDER BY component, grp, name, ordinal, identifier");
  c.Bind(1, std::string(scope));
  while (c.Step()) {
    if (c.Text(4) == "DELETE") {
      rapidjson::Value d(rapidjson::kObjectType);
      d.AddMember("component", rapidjson::Value(c.Text(0), a), a);
      d.AddMember("group", rapidjson::Value(c.Text(1), a), a);
      d.AddMember("key", rapidjson::Value(c.Text(2), a), a);
      deletes.PushBack(d, a);
      continue;
    }
    rapidjson::Value v;
    ParseValue(c.Text(5), v, a, ConfigStoreObjectId(c.Text(2), c.Text(1), c.Text(0), c.Text(3)).toString());
    Place(out["desired"], c.Text(0), c.Text(1), c.Text(2), c.Int(6) != 0, v, a);
  }
  out.AddMember("desiredDeletes", deletes, a);
}

}  // namespace

void LoadStoreDescription(const rapidjson::Value& description) {
  if (!description.IsObject()) Fail(STORE_BAD_VALUE, "Store description is not a JSON object");
  for (auto& m : description.GetObject()) {
    std::string name = m.name.GetString();
    static const char* const known[] = {"host", "smartnic", "bootMode", "bootApplyState", "restoreFailures"};
    bool ok = false;
    for (const char* k : known) ok = ok || name == k;
    if (!ok) Fail(STORE_BAD_VALUE, "Store description: unknown member \"" + name + "\"");
  }
  auto conn = GlobalConnection();
  WriteTransaction(Of(conn), [&] {
    Impl& impl = Of(conn);
    for (const char* table : {"DELETE FROM config_object", "DELETE FROM desired_object",
                              "DELETE FROM store_meta", "DELETE FROM restore_failure"})
      Cursor(impl, table).Run();
    if (const rapidjson::Value* host = Member(description, "host", "")) LoadScope(impl, *host, kHost, "host.");
    if (const rapidjson::Value* nic = Member(description, "smartnic", "")) LoadScope(impl, *nic, kSmartnic, "smartnic.");
    auto mode = description.FindMember("bootMode");
    if (mode != description.MemberEnd()) {
      if (!mode->value.IsInt()) Fail(STORE_BAD_VALUE, "Store description: \"bootMode\" is not an integer");
      SetMeta(impl, "bootMode", std::to_string(mode->value.GetInt()));
    }
    if (const rapidjson::Value* state = Member(description, "bootApplyState", "")) {
      auto complete = state->FindMember("isBootComplete");
      auto record = state->FindMember("bootApplyRecord");
      if (complete == state->MemberEnd() || !complete->value.IsBool() ||
          record == state->MemberEnd() || !record->value.IsString())
        Fail(STORE_BAD_VALUE,
             "Store description: \"bootApplyState\" needs \"isBootComplete\" (boolean) and \"bootApplyRecord\" (string)");
      SetMeta(impl, "isBootComplete", complete->value.GetBool() ? "1" : "0");
      SetMeta(impl, "bootApplyRecord", record->value.GetString());
    }
    auto failures = description.FindMember("restoreFailures");
    if (failures != description.MemberEnd()) {
      const char* message = "Store description: \"restoreFailures\" must be an array of {\"component\", \"group\", \"key\"} objects";
      if (!failures->value.IsArray()) Fail(STORE_BAD_VALUE, message);
      for (auto& f : failures->value.GetArray()) {
        if (!f.IsObject() || !f.HasMember("component") || !f["component"].IsString() ||
            !f.HasMember("group") || !f["group"].IsString() || !f.HasMember("key") || !f["key"].IsString())
          Fail(STORE_BAD_VALUE, message);
        Cursor(impl, "INSERT INTO restore_failure(component, grp, name) VALUES(?1, ?2, ?3)")
            .Bind(1, std::string(f["component"].GetString()))
            .Bind(2, std::string(f["group"].GetString()))
            .Bind(3, std::string(f["key"].GetString()))
            .Run();
      }
    }
  });
}

std::shared_ptr<JsonDoc> DumpStoreDescription() {
  auto doc = std::make_shared<JsonDoc>();
  rapidjson::Document& d = doc->GetDocument();
  auto& a = d.GetAllocator();
  d.SetObject();
  auto conn = GlobalConnection();
  Impl& impl = Of(conn);
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  rapidjson::Value host, nic;
  DumpScope(impl, kHost, host, a);
  DumpScope(impl, kSmartnic, nic, a);
  d.AddMember("host", host, a);
  d.AddMember("smartnic", nic, a);
  d.AddMember("bootMode", std::stoi(GetMeta(impl, "bootMode", "0")), a);
  rapidjson::Value state(rapidjson::kObjectType);
  state.AddMember("isBootComplete", GetMeta(impl, "isBootComplete", "0") == "1", a);
  state.AddMember("bootApplyRecord", rapidjson::Value(GetMeta(impl, "bootApplyRecord", ""), a), a);
  d.AddMember("bootApplyState", state, a);
  rapidjson::Value failures(rapidjson::kArrayType);
  Cursor c(impl, "SELECT component, grp, name FROM restore_failure ORDER BY seq");
  while (c.Step()) {
    rapidjson::Value f(rapidjson::kObjectType);
    f.AddMember("component", rapidjson::Value(c.Text(0), a), a);
    f.AddMember("group", rapidjson::Value(c.Text(1), a), a);
    f.AddMember("key", rapidjson::Value(c.Text(2), a), a);
    failures.PushBack(f, a);
  }
  d.AddMember("restoreFailures", failures, a);
  return doc;
}

}  // namespace QenConfigStore
