// Store operations: reads as map lists and objects, staging of desired
// configuration, boot state and statistics.
#include <mutex>
#include <set>

#include "QenSchemaStore.h"
#include "StoreRows.h"

namespace QenConfigStore {
namespace detail {

namespace {

const char* const kGenerated = "cs_generated_id";

std::string KeyPath(const std::string& c, const std::string& g, const std::string& k) {
  return c + "/" + g + "/" + k;
}

}  // namespace

const std::string& InstanceResolver::Field(const std::string& component, const std::string& group,
                                           const std::string& key) {
  std::string path = KeyPath(component, group, key);
  auto it = fields_.find(path);
  if (it != fields_.end()) return it->second;
  std::string field = kGenerated;
  auto store = QenSchemaStore::SchemaStore::GetStore();
  if (store) {
    auto schema = store->GetSchema(component, group, key);
    if (schema && schema->IsNonSingleton() && !schema->GetInstanceIdField().empty())
      field = schema->GetInstanceIdField();
  }
  return fields_.emplace(path, field).first->second;
}

DocObject InstanceResolver::Resolve(const std::string& component, const std::string& group,
                                    const std::string& key, const rapidjson::Value& element,
                                    size_t index) {
  DocObject object{component, group, key, "", "", static_cast<int64_t>(index) + 1};
  const std::string& field = Field(component, group, key);
  if (element.IsObject()) {
    auto it = element.FindMember(field);
    if (it != element.MemberEnd() && it->value.IsString()) {
      object.identifier.assign(it->value.GetString(), it->value.GetStringLength());
      object.text = QenPlatform::CompactJson(element);
      return object;
    }
    if (it == element.MemberEnd() && field == kGenerated) {
      rapidjson::Document copy;
      copy.CopyFrom(element, copy.GetAllocator());
      object.identifier = GenerateInstanceId();
      copy.AddMember(rapidjson::StringRef(kGenerated),
                     rapidjson::Value(object.identifier, copy.GetAllocator()), copy.GetAllocator());
      object.text = QenPlatform::CompactJson(copy);
      return object;
    }
  }
  Fail(STORE_BAD_VALUE, "Instance " + std::to_string(index) + " of " +
                            ConfigStoreObjectId(key, group, component).toString() +
                            " is not an object with a string member \"" + field + "\"");
}

void ForEachObject(const rapidjson::Value& document, const std::string& what,
                   InstanceResolver& resolver, const std::function<void(DocObject&)>& visit) {
  if (!document.IsObject()) Fail(STORE_BAD_VALUE, what + " is not a JSON object");
  const rapidjson::Value* root = &document;
  auto profile = document.FindMember("profile");
  if (profile != document.MemberEnd()) root = &profile->value;
  if (!root->IsObject()) Fail(STORE_BAD_VALUE, what + ": \"profile\" is not an object");
  for (auto& comp : root->GetObject()) {
    std::string c(comp.name.GetString(), comp.name.GetStringLength());
    if (c == "host-specific" || c == "host-override" || c == "metadata") continue;
    if (!comp.value.IsObject()) Fail(STORE_BAD_VALUE, what + ": component \"" + c + "\" is not an object");
    for (auto& grp : comp.value.GetObject()) {
      std::string g(grp.name.GetString(), grp.name.GetStringLength());
      if (!grp.value.IsObject())
        Fail(STORE_BAD_VALUE, what + ": group \"" + c + "/" + g + "\" is not an object");
      for (auto& key : grp.value.GetObject()) {
        std::string k(key.name.GetString(), key.name.GetStringLength());
        const rapidjson::Value& v = key.value;
        if (v.IsArray()) {
          for (rapidjson::SizeType i = 0; i < v.Size(); ++i) {
            DocObject object = resolver.Resolve(c, g, k, v[i], i);
            visit(object);
          }
        } else if (v.IsObject() || (v.IsString() && v.GetString() == std::string(kDeleteDefault))) {
          DocObject object{c, g, k, "", v.IsString() ? std::string(kDeleteDefault) : QenPlatform::CompactJson(v), 1};
          visit(object);
        } else {
          Fail(STORE_BAD_VALUE, what + ": the value of " + ConfigStoreObjectId(k, g, c).toString() +
                                    " is neither an object nor an array");
        }
      }
    }
  }
}

void StageDocument(Impl& impl, const char* scope, const rapidjson::Value& document,
                   const std::string& what) {
  Cursor(impl, "DELETE FROM desired_object WHERE scope = ?1").Bind(1, std::string(scope)).Run();
  InstanceResolver resolver;
  ForEachObject(document, what, resolver, [&](DocObject& o) {
    if (o.text == kDeleteDefault)
      Fail(STORE_BAD_VALUE, what + ": a desired value cannot be \"DELETE_DEFAULT\" (" +
                                ConfigStoreObjectId(o.key, o.group, o.component).toString() + ")");
    Cursor c(impl,
             "INSERT OR REPLACE INTO desired_object"
             "(scope, component, grp, name, identifier, op, value, ordinal)"
             " VALUES(?1, ?2, ?3, ?4, ?5, 'SET', ?6, ?7)");
    c.Bind(1, std::string(scope)).Bind(2, o.component).Bind(3, o.group).Bind(4, o.key);
    c.Bind(5, o.identifier).Bind(6, o.text).Bind(7, o.ordinal).Run();
  });
  SetMeta(impl, std::string("desiredMode.") + scope, "document");
}

ConfigMapList ReadMaps(Cursor& cursor) {
  auto list = std::make_shared<ConfigMapVector>();
  while (cursor.Step()) {
    auto map = std::make_shared<ConfigMap>();
    (*map)["Component"] = cursor.Text(0);
    (*map)["ConfigGroup"] = cursor.Text(1);
    (*map)["Name"] = cursor.Text(2);
    (*map)["Identifier"] = cursor.Text(3);
    (*map)["Value"] = cursor.Text(4);
    (*map)["AutoConfValue"] = cursor.Text(5);
    list->push_back(std::move(map));
  }
  return list;
}

}  // namespace detail

using namespace detail;

namespace {

// Runs `body` with the global connection locked.
template <typename F>
auto WithGlobal(F body) -> decltype(body(std::declval<Impl&>())) {
  auto conn = GlobalConnection();
  Impl& impl = Of(conn);
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  return body(impl);
}

ConfigMapList CurrentContents(const std::shared_ptr<DBStore::StoreConnection>& conn,
                              const char* scope) {
  Impl& impl = Of(conn);
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  Cursor c(impl,
           "SELECT component, grp, name, identifier, current_value, autoconf_value"
           " FROM config_object WHERE scope = ?1 AND category = 'user' AND current_value IS NOT NULL"
           " ORDER BY component, grp, name, ordinal, identifier");
  c.Bind(1, std::string(scope));
  return ReadMaps(c);
}

ConfigMapList DesiredContents(const std::shared_ptr<DBStore::StoreConnection>& conn,
                              const char* scope) {
  Impl& impl = Of(conn);
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  // Staged values: in mode "document" alone; in mode "overlay" they replace
  // the current key as a whole, and a staged deletion (op 'DELETE') removes
  // it.
  Cursor c(impl,
           "SELECT component, grp, name, identifier, value, autoconf, ordinal FROM ("
           " SELECT o.component, o.grp, o.name, o.identifier, o.current_value AS value,"
           "  o.autoconf_value AS autoconf, o.ordinal FROM config_object o"
           "  WHERE ?2 <> 'document' AND o.scope = ?1 AND o.category = 'user' AND"
           "  o.current_value IS NOT NULL AND"
           "  NOT EXISTS (SELECT 1 FROM desired_object d WHERE d.scope = o.scope AND"
           "   d.component = o.component AND d.grp = o.grp AND d.name = o.name)"
           " UNION ALL"
           " SELECT d.component, d.grp, d.name, d.identifier, d.value, o.autoconf_value, d.ordinal"
           "  FROM desired_object d LEFT JOIN config_object o ON o.scope = d.scope AND"
           "  o.component = d.component AND o.grp = d.grp AND o.name = d.name AND"
           "  o.identifier = d.identifier"
           "  WHERE d.scope = ?1 AND d.op = 'SET')"
           " ORDER BY component, grp, name, ordinal, identifier");
  c.Bind(1, std::string(scope)).Bind(2, GetMeta(impl, std::string("desiredMode.") + scope, "overlay"));
  return ReadMaps(c);
}

// Objects of one value column for a key (one instance, or all when
// `allInstances`). "DELETE_DEFAULT" is not an object and is skipped.
std::vector<std::shared_ptr<ConfigStoreObject>> ReadObjects(
    const char* sql, const ConfigStoreObjectId& id,
    const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema, bool allInstances) {
  Impl& impl = Of(conn);
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  Cursor c(impl, sql);
  c.Bind(1, id.GetComponent()).Bind(2, id.GetGroup()).Bind(3, id.GetKey());
  if (allInstances) c.BindNull(4); else c.Bind(4, id.GetInstanceId());
  std::vector<std::shared_ptr<ConfigStoreObject>> objects;
  while (c.Step()) {
    std::string text = c.Text(1);
    if (text == kDeleteDefault) continue;
    ConfigStoreObjectId objectId(id.GetKey(), id.GetGroup(), id.GetComponent(), c.Text(0));
    auto object = CreateObject(objectId, text, static_cast<uint64_t>(c.Int(2)));
    if (objectId.GetInstanceId().empty() && schema)
      object = CreateObject(objectId, object->GetJson(), schema, object->GetOrdinal(), allInstances);
    objects.push_back(std::move(object));
  }
  return objects;
}

const char* const kDefaultObjects =
    "SELECT identifier, default_value, ordinal FROM config_object"
    " WHERE scope = 'host' AND component = ?1 AND grp = ?2 AND name = ?3 AND"
    " (?4 IS NULL OR identifier = ?4) AND default_value IS NOT NULL"
    " ORDER BY ordinal, identifier";
const char* const kCurrentObjects =
    "SELECT identifier, current_value, ordinal FROM config_object"
    " WHERE scope = 'host' AND component = ?1 AND grp = ?2 AND name = ?3 AND"
    " (?4 IS NULL OR identifier = ?4) AND current_value IS NOT NULL"
    " ORDER BY ordinal, identifier";

std::shared_ptr<ConfigStoreObject> First(std::vector<std::shared_ptr<ConfigStoreObject>> objects) {
  return objects.empty() ? nullptr : objects.front();
}

int64_t Count(Impl& impl, const char* sql) {
  Cursor c(impl, sql);
  return c.Step() ? c.Int(0) : 0;
}

int64_t CategorySize(const char* category) {
  return WithGlobal([&](Impl& impl) {
    Cursor c(impl,
             "SELECT COALESCE(SUM(IFNULL(LENGTH(CAST(default_value AS BLOB)), 0) +"
             " IFNULL(LENGTH(CAST(current_value AS BLOB)), 0) +"
             " IFNULL(LENGTH(CAST(autoconf_value AS BLOB)), 0)), 0)"
             " FROM config_object WHERE category = ?1");
    c.Bind(1, std::string(category));
    return c.Step() ? c.Int(0) : 0;
  });
}

}  // namespace

ConfigMapList GetUserConfigContents(const std::shared_ptr<DBStore::StoreConnection>& conn) {
  return CurrentContents(conn, kHost);
}

ConfigMapList GetSmartnicConfiguration(const std::shared_ptr<DBStore::StoreConnection>& conn) {
  return CurrentContents(conn, kSmartnic);
}

ConfigMapList GetDesiredUserConfigContents(const std::shared_ptr<DBStore::StoreConnection>& conn) {
  return DesiredContents(conn, kHost);
}

ConfigMapList GetDesiredSmartnicConfiguration(const std::shared_ptr<DBStore::StoreConnection>& conn) {
  return DesiredContents(conn, kSmartnic);
}

namespace {

ConfigMapVector DefaultMaps(const ConfigStoreObjectId& id,
                            const std::shared_ptr<DBStore::StoreConnection>& conn,
                            const char* scope) {
  Impl& impl = Of(conn);
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  Cursor c(impl,
           "SELECT component, grp, name, identifier, default_value, autoconf_value"
           " FROM config_object WHERE scope = ?5 AND component = ?1 AND grp = ?2 AND"
           " name = ?3 AND (?4 IS NULL OR identifier = ?4) AND default_value IS NOT NULL"
           " ORDER BY ordinal, identifier");
  c.Bind(1, id.GetComponent()).Bind(2, id.GetGroup()).Bind(3, id.GetKey());
  if (id.GetInstanceId().empty()) c.BindNull(4); else c.Bind(4, id.GetInstanceId());
  c.Bind(5, std::string(scope));
  return *ReadMaps(c);
}

}  // namespace

ConfigMapVector GetDefaultUserConfigMapList(const ConfigStoreObjectId& id,
                                          const std::shared_ptr<DBStore::StoreConnection>& conn) {
  return DefaultMaps(id, conn, kHost);
}

ConfigMapVector GetDefaultSmartnicConfigMapList(const ConfigStoreObjectId& id,
                                              const std::shared_ptr<DBStore::StoreConnection>& conn) {
  return DefaultMaps(id, conn, kSmartnic);
}

std::shared_ptr<ConfigStoreObject> GetDefaultUserConfigInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema) {
  return First(ReadObjects(kDefaultObjects, id, conn, schema, false));
}

std::shared_ptr<ConfigStoreObject> GetCurrentConfigInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema) {
  return First(ReadObjects(kCurrentObjects, id, conn, schema, false));
}

std::vector<std::shared_ptr<ConfigStoreObject>> GetDefaultUserConfigInstancesInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema) {
  return ReadObjects(kDefaultObjects, id, conn, schema, true);
}

std::vector<std::shared_ptr<ConfigStoreObject>> GetCurrentConfigInstancesInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema) {
  return ReadObjects(kCurrentObjects, id, conn, schema, true);
}

bool CheckDesiredObjectExists(const ConfigStoreObjectId& id,
                              const std::shared_ptr<DBStore::StoreConnection>& conn) {
  Impl& impl = Of(conn);
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  Cursor c(impl,
           "SELECT 1 FROM desired_object WHERE scope = 'host' AND component = ?1 AND grp = ?2 AND"
           " name = ?3 AND (?4 IS NULL OR identifier = ?4 OR op = 'DELETE') LIMIT 1");
  c.Bind(1, id.GetComponent()).Bind(2, id.GetGroup()).Bind(3, id.GetKey());
  if (id.GetInstanceId().empty()) c.BindNull(4); else c.Bind(4, id.GetInstanceId());
  return c.Step();
}

void ProcessDesiredObject(rapidjson::Document::AllocatorType& allocator,
                          const std::shared_ptr<DBStore::StoreConnection>& conn,
                          const std::string& userConfigText, const std::string& component,
                          const std::string& group, const std::string& key,
                          const std::shared_ptr<QenSchemaStore::SchemaObject>& schema,
                          rapidjson::Value& value) {
  ConfigStoreObjectId id(key, group, component);
  if (userConfigText.empty())
    Fail(STORE_BAD_VALUE, "Cannot stage " + id.toString() + ": it is not user configuration");
  if (!value.IsObject())
    Fail(STORE_BAD_VALUE, "Cannot stage " + id.toString() + ": the value is not an object");
  std::string identifier;
  if (schema && schema->IsNonSingleton()) {
    const std::string& field = schema->GetInstanceIdField();
    auto it = value.FindMember(field);
    if (it == value.MemberEnd() && field == "cs_generated_id") {
      identifier = GenerateInstanceId();
      value.AddMember(rapidjson::Value(field, allocator), rapidjson::Value(identifier, allocator),
                      allocator);
    } else if (it != value.MemberEnd() && it->value.IsString()) {
      identifier.assign(it->value.GetString(), it->value.GetStringLength());
    } else {
      Fail(STORE_BAD_VALUE, "Cannot stage an instance of " + id.toString() +
                                ": it has no string member \"" + field + "\"");
    }
  }
  const std::string text = QenPlatform::CompactJson(value);
  WriteTransaction(Of(conn), [&] {
    Impl& impl = Of(conn);
    Cursor(impl,
           "DELETE FROM desired_object WHERE scope = 'host' AND component = ?1 AND grp = ?2 AND"
           " name = ?3 AND op = 'DELETE'")
        .Bind(1, component).Bind(2, group).Bind(3, key).Run();
    Cursor c(impl,
             "INSERT INTO desired_object(scope, component, grp, name, identifier, op, value, ordinal)"
             " VALUES('host', ?1, ?2, ?3, ?4, 'SET', ?5, (SELECT COALESCE(MAX(ordinal), 0) + 1"
             "  FROM desired_object WHERE scope = 'host' AND component = ?1 AND grp = ?2 AND name = ?3))"
             " ON CONFLICT(scope, component, grp, name, identifier)"
             " DO UPDATE SET op = 'SET', value = excluded.value");
    c.Bind(1, component).Bind(2, group).Bind(3, key).Bind(4, identifier).Bind(5, text).Run();
  });
}

void DeleteHostAPIConfiguration(const std::string& component, const std::string& group,
                                const std::string& key) {
  DeleteHostAPIConfiguration(component, group, key, GlobalConnection());
}

void DeleteHostAPIConfiguration(const std::string& component, const std::string& group,
                                const std::string& key,
                                const std::shared_ptr<DBStore::StoreConnection>& conn) {
  WriteTransaction(Of(conn), [&] {
    Impl& impl = Of(conn);
    Cursor(impl,
           "DELETE FROM desired_object WHERE scope = 'host' AND component = ?1 AND grp = ?2 AND"
           " name = ?3")
        .Bind(1, component).Bind(2, group).Bind(3, key).Run();
    Cursor(impl,
           "INSERT INTO desired_object(scope, component, grp, name, identifier, op, value, ordinal)"
           " VALUES('host', ?1, ?2, ?3, '', 'DELETE', NULL, 0)")
        .Bind(1, component).Bind(2, group).Bind(3, key).Run();
  });
}

void SetDesiredUserConfig(const rapidjson::Value& document) {
  SetDesiredUserConfig(document, GlobalConnection());
}

void SetDesiredUserConfig(const rapidjson::Value& document,
                          const std::shared_ptr<DBStore::StoreConnection>& conn) {
  WriteTransaction(Of(conn), [&] {
    StageDocument(Of(conn), kHost, document, "The desired configuration document");
    SetMeta(Of(conn), "bootMode", std::to_string(BOOTMODE_DESIRED_STAGED));
  });
}

void SetDesiredSmartnicConfiguration(const rapidjson::Value& document) {
  auto conn = GlobalConnection();
  WriteTransaction(Of(conn), [&] {
    StageDocument(Of(conn), kSmartnic, document, "The desired SmartNIC configuration document");
  });
}

void ClearDesiredConfig() {
  auto conn = GlobalConnection();
  WriteTransaction(Of(conn), [&] {
    Impl& impl = Of(conn);
    Cursor(impl, "DELETE FROM desired_object").Run();
    SetMeta(impl, "desiredMode.host", "overlay");
    SetMeta(impl, "desiredMode.smartnic", "overlay");
    SetMeta(impl, "bootMode", std::to_string(BOOTMODE_NORMAL));
  });
}

void RestoreDesiredConfigAtBoot() {
  auto conn = GlobalConnection();
  WriteTransaction(Of(conn), [&] {
    Impl& impl = Of(conn);
    Cursor(impl, "DELETE FROM restore_failure").Run();
    for (const char* scope : {kHost, kSmartnic}) {
      const std::string mode = GetMeta(impl, std::string("desiredMode.") + scope, "overlay");
      struct Staged { std::string c, g, k, id, value; int64_t ordinal; };
      std::vector<Staged> staged;
      {
        Cursor c(impl,
                 "SELECT component, grp, name, identifier, value, ordinal FROM desired_object"
                 " WHERE scope = ?1 AND op = 'SET' ORDER BY component, grp, name, ordinal");
        c.Bind(1, std::string(scope));
        while (c.Step()) staged.push_back({c.Text(0), c.Text(1), c.Text(2), c.Text(3), c.Text(4), c.Int(5)});
      }
      std::set<std::string> failed;
      for (const Staged& s : staged) {
        rapidjson::Document parsed;
        if (QenPlatform::ParseJson(s.value, parsed)) continue;
        if (failed.insert(s.c + "\x1f" + s.g + "\x1f" + s.k).second)
          Cursor(impl, "INSERT INTO restore_failure(component, grp, name) VALUES(?1, ?2, ?3)")
              .Bind(1, s.c).Bind(2, s.g).Bind(3, s.k).Run();
      }
      // A whole document replaces every current user value; otherwise only
      // the staged keys change. Keys that failed keep what they had.
      Cursor(impl,
             "UPDATE config_object SET current_value = NULL WHERE scope = ?1 AND category = 'user'"
             " AND (?2 = 'document' OR EXISTS (SELECT 1 FROM desired_object d WHERE"
             "  d.scope = config_object.scope AND d.component = config_object.component AND"
             "  d.grp = config_object.grp AND d.name = config_object.name))"
             " AND NOT EXISTS (SELECT 1 FROM restore_failure f WHERE f.component ="
             "  config_object.component AND f.grp = config_object.grp AND f.name = config_object.name)")
          .Bind(1, std::string(scope)).Bind(2, mode).Run();
      for (const Staged& s : staged) {
        if (failed.count(s.c + "\x1f" + s.g + "\x1f" + s.k)) continue;
        Cursor(impl,
               "INSERT INTO config_object(scope, component, grp, name, identifier, category,"
               " current_value, ordinal) VALUES(?1, ?2, ?3, ?4, ?5, 'user', ?6, ?7)"
               " ON CONFLICT(scope, component, grp, name, identifier)"
               " DO UPDATE SET current_value = excluded.current_value, ordinal = excluded.ordinal")
            .Bind(1, std::string(scope)).Bind(2, s.c).Bind(3, s.g).Bind(4, s.k).Bind(5, s.id)
            .Bind(6, s.value).Bind(7, s.ordinal).Run();
      }
      Cursor(impl,
             "DELETE FROM config_object WHERE scope = ?1 AND default_value IS NULL AND"
             " current_value IS NULL AND autoconf_value IS NULL")
          .Bind(1, std::string(scope)).Run();
      Cursor(impl, "DELETE FROM desired_object WHERE scope = ?1").Bind(1, std::string(scope)).Run();
      SetMeta(impl, std::string("desiredMode.") + scope, "overlay");
    }
    SetMeta(impl, "bootMode", std::to_string(BOOTMODE_NORMAL));
    SetMeta(impl, "isBootComplete", "0");
  });
}

int GetBootMode() {
  std::string text = WithGlobal([](Impl& impl) { return GetMeta(impl, "bootMode", "0"); });
  try {
    size_t used = 0;
    int mode = std::stoi(text, &used);
    if (used == text.size()) return mode;
  } catch (const std::exception&) {
  }
  Fail(STORE_READ_FAILED, "Configuration store boot mode \"" + text + "\" is not a number");
}

void SetBootMode(int mode) { SetBootMode(mode, GlobalConnection()); }

void SetBootMode(int mode, const std::shared_ptr<DBStore::StoreConnection>& conn) {
  WriteTransaction(Of(conn), [&] { SetMeta(Of(conn), "bootMode", std::to_string(mode)); });
}

std::shared_ptr<JsonDoc> getBootApplyRecord() {
  auto doc = std::make_shared<JsonDoc>();
  rapidjson::Document& d = doc->GetDocument();
  d.SetObject();
  WithGlobal([&](Impl& impl) {
    d.AddMember("isBootComplete", GetMeta(impl, "isBootComplete", "0") == "1", d.GetAllocator());
    d.AddMember("bootApplyRecord",
                rapidjson::Value(GetMeta(impl, "bootApplyRecord", ""), d.GetAllocator()),
                d.GetAllocator());
  });
  return doc;
}

void setBootApplyRecord(const std::string& record) { setBootApplyRecord(record, GlobalConnection()); }

void setBootApplyRecord(const std::string& record, const std::shared_ptr<DBStore::StoreConnection>& conn) {
  WriteTransaction(Of(conn), [&] {
    SetMeta(Of(conn), "bootApplyRecord", record);
    SetMeta(Of(conn), "isBootComplete", "1");
  });
}

void SetBootComplete(bool complete) {
  auto conn = GlobalConnection();
  WriteTransaction(Of(conn), [&] { SetMeta(Of(conn), "isBootComplete", complete ? "1" : "0"); });
}

std::vector<ConfigStoreObjectId> GetBootTimeRestoreFailures() {
  return WithGlobal([](Impl& impl) {
    std::vector<ConfigStoreObjectId> failures;
    Cursor c(impl, "SELECT component, grp, name FROM restore_failure ORDER BY seq");
    while (c.Step()) failures.emplace_back(c.Text(2), c.Text(1), c.Text(0));
    return failures;
  });
}

void AddBootTimeRestoreFailure(const std::string& component, const std::string& group,
                               const std::string& key) {
  auto conn = GlobalConnection();
  WriteTransaction(Of(conn), [&] {
    Cursor(Of(conn), "INSERT INTO restore_failure(component, grp, name) VALUES(?1, ?2, ?3)")
        .Bind(1, component).Bind(2, group).Bind(3, key).Run();
  });
}

void ClearBootTimeRestoreFailures() {
  auto conn = GlobalConnection();
  WriteTransaction(Of(conn), [&] { Cursor(Of(conn), "DELETE FROM restore_failure").Run(); });
}

int64_t GetConfigRowCount() {
  return WithGlobal([](Impl& impl) {
    return Count(impl, "SELECT (SELECT COUNT(*) FROM config_object) + (SELECT COUNT(*) FROM desired_object)");
  });
}

int64_t GetVitalConfigSize() { return CategorySize("vital"); }

int64_t GetUserConfigSize() {
  return CategorySize("user") + WithGlobal([](Impl& impl) {
           return Count(impl,
                        "SELECT COALESCE(SUM(LENGTH(CAST(value AS BLOB))), 0) FROM desired_object");
         });
}

int64_t GetCachedConfigSize() { return CategorySize("cached"); }

std::vector<std::string> GetConfigMetrics() {
  return WithGlobal([](Impl& impl) {
    const std::pair<const char*, const char*> metrics[] = {
        {"objectRows", "SELECT COUNT(*) FROM config_object"},
        {"desiredRows", "SELECT COUNT(*) FROM desired_object"},
        {"defaultValues", "SELECT COUNT(*) FROM config_object WHERE default_value IS NOT NULL"},
        {"currentValues", "SELECT COUNT(*) FROM config_object WHERE current_value IS NOT NULL"},
        {"deleteDefaultMarkers",
         "SELECT COUNT(*) FROM config_object WHERE current_value = 'DELETE_DEFAULT'"},
        {"smartnicObjects", "SELECT COUNT(*) FROM config_object WHERE scope = 'smartnic'"},
        {"restoreFailures", "SELECT COUNT(*) FROM restore_failure"},
        {"databaseBytes",
         "SELECT page_count * page_size FROM pragma_page_count(), pragma_page_size()"},
    };
    std::vector<std::string> lines;
    for (const auto& m : metrics) lines.push_back(std::string(m.first) + "=" + std::to_string(Count(impl, m.second)));
    return lines;
  });
}

std::shared_ptr<ConfigStoreObject> ConfigStore::GetObject(const ConfigStoreObjectId& id) {
  return First(ReadObjects(kCurrentObjects, id, conn_, nullptr, false));
}

void ConfigStore::SetObject(const StoreObject& object) { SetObject(object, conn_); }

void ConfigStore::SetObject(const StoreObject& object, const std::shared_ptr<DBStore::StoreConnection>& conn) {
  const ConfigStoreObjectId& id = object.GetConfigStoreObjectId();
  const std::string text = QenPlatform::CompactJson(object.GetJson());
  // A key whose schema says it is user configuration is user configuration;
  // anything else the host keeps for itself is vital.
  std::string category = "vital";
  if (auto schemas = QenSchemaStore::SchemaStore::GetStore()) {
    auto schema = schemas->GetSchema(id.GetComponent(), id.GetGroup(), id.GetKey());
    if (schema && !schema->GetUserConfigText().empty()) category = "user";
  }
  WriteTransaction(Of(conn), [&] {
    Cursor c(Of(conn),
             "INSERT INTO config_object(scope, component, grp, name, identifier, category,"
             " current_value, ordinal) VALUES('host', ?1, ?2, ?3, ?4, ?6, ?5,"
             " (SELECT COALESCE(MAX(ordinal), 0) + 1 FROM config_object WHERE scope = 'host' AND"
             "  component = ?1 AND grp = ?2 AND name = ?3))"
             " ON CONFLICT(scope, component, grp, name, identifier)"
             " DO UPDATE SET current_value = excluded.current_value");
    c.Bind(1, id.GetComponent()).Bind(2, id.GetGroup()).Bind(3, id.GetKey());
    c.Bind(4, id.GetInstanceId()).Bind(5, text).Bind(6, category).Run();
  });
}

void ConfigStore::DeleteObject(const ConfigStoreObjectId& id) {
  WriteTransaction(Of(conn_), [&] {
    Impl& impl = Of(conn_);
    Cursor(impl,
           "UPDATE config_object SET current_value = NULL WHERE scope = 'host' AND component = ?1"
           " AND grp = ?2 AND name = ?3 AND identifier = ?4")
        .Bind(1, id.GetComponent()).Bind(2, id.GetGroup()).Bind(3, id.GetKey())
        .Bind(4, id.GetInstanceId()).Run();
    Cursor(impl,
           "DELETE FROM config_object WHERE scope = 'host' AND component = ?1 AND grp = ?2 AND"
           " name = ?3 AND identifier = ?4 AND default_value IS NULL AND autoconf_value IS NULL")
        .Bind(1, id.GetComponent()).Bind(2, id.GetGroup()).Bind(3, id.GetKey())
        .Bind(4, id.GetInstanceId()).Run();
  });
}

}  // namespace QenConfigStore
