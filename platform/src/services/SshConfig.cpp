#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <boost/filesystem.hpp>

#include "CSLogger.h"
#include "HostCtl.h"
#include "HostRoot.h"
#include "QenConfigStore.h"
#include "TavCtl.h"
#include "HostFiles.h"

namespace TavCtl {
namespace System {
namespace {

typedef rapidjson::Document::AllocatorType Allocator;

// The file's text; false when it does not exist. Any other failure throws.
bool ReadSshFile(const std::string& logical, std::string& text) {
  if (QenPlatform::ReadWholeFile(QenPlatform::HostPath(logical), text)) return true;
  if (errno == ENOENT || errno == ENOTDIR) return false;
  throw HostCtl::Lib::HostCtlException("cannot read SSH file \"" + logical +
                                       "\": " + std::strerror(errno));
}

const char* kBlank = " \t\r";

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(kBlank);
  if (begin == std::string::npos) return std::string();
  size_t end = text.find_last_not_of(kBlank);
  return text.substr(begin, end - begin + 1);
}

// The lines that carry content: trimmed, neither blank nor comments.
std::vector<std::string> ContentLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = Trim(text.substr(start, end - start));
    if (!line.empty() && line[0] != '#') lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

void AddConfigFile(const char* logical, rapidjson::Document& objects) {
  std::string text;
  if (!ReadSshFile(logical, text)) return;
  rapidjson::Value value;
  ParseSshConfig(text, value, objects.GetAllocator());
  objects.AddMember("", value, objects.GetAllocator());
}

// Deletes the stored instances of system/ssh/<key> that `objects` does not name.
bool DeleteStaleInstances(QenConfigStore::ConfigStore& store, const char* key,
                          const rapidjson::Document& objects) {
  bool deleted = false;
  QenConfigStore::ConfigMapList maps = QenConfigStore::GetUserConfigContents(store.GetConnection());
  for (const auto& map : *maps) {
    if ((*map)["Component"] != "system" || (*map)["ConfigGroup"] != "ssh" || (*map)["Name"] != key)
      continue;
    const std::string& instance = (*map)["Identifier"];
    if (objects.HasMember(instance)) continue;
    QenConfigStore::ConfigStoreObjectId id(key, "ssh", "system", instance);
    store.DeleteObject(id);
    CSLogger::Log(3, "SSH configuration removed from the config store: %s", id.toString().c_str());
    deleted = true;
  }
  return deleted;
}

}  // namespace

void ParseSshConfig(const std::string& text, rapidjson::Value& out, Allocator& alloc) {
  rapidjson::Value options(rapidjson::kArrayType);
  for (const std::string& line : ContentLines(text)) {
    size_t split = line.find_first_of(" \t=");
    std::string keyword = line.substr(0, split);
    std::string value;
    if (split != std::string::npos) {
      // "Keyword value", "Keyword=value" and "Keyword = value" are the same.
      value = Trim(line.substr(split));
      if (!value.empty() && value[0] == '=') value = Trim(value.substr(1));
    }
    rapidjson::Value option(rapidjson::kObjectType);
    option.AddMember("keyword", rapidjson::Value(keyword, alloc), alloc);
    option.AddMember("value", rapidjson::Value(value, alloc), alloc);
    options.PushBack(option, alloc);
  }
  out.SetObject();
  out.AddMember("options", options, alloc);
}

SshConfig::SshConfig(int systemState) : systemState_(systemState) {
  if (systemState < SYSTEM_STATE_BOOT || systemState > SYSTEM_STATE_RUNNING)
    throw std::invalid_argument("unknown system state " + std::to_string(systemState));
}

SshConfig::~SshConfig() = default;

bool SshConfig::UpgradeConfigToConfigStore() {
  if (systemState_ != SYSTEM_STATE_RUNNING) return false;
  rapidjson::Document objects(rapidjson::kObjectType);
  ReadFiles(objects);
  if (objects.MemberCount() == 0 && !HoldsInstances()) return false;

  std::shared_ptr<QenConfigStore::ConfigStore> store = QenConfigStore::ConfigStore::GetStore();
  if (!store)
    throw QenConfigStore::ConfigStoreException(2001, "the configuration store is not available");
  QenConfigStore::ConfigStoreTransaction transaction(store);
  bool wrote = false;
  for (const auto& object : objects.GetObject()) {
    QenConfigStore::ConfigStoreObjectId id(
        Key(), "ssh", "system", std::string(object.name.GetString(), object.name.GetStringLength()));
    std::shared_ptr<QenConfigStore::ConfigStoreObject> current = store->GetObject(id);
    if (current && current->GetJson() == object.value) continue;
    store->SetObject(QenConfigStore::StoreObject(id, object.value));
    CSLogger::Log(3, "SSH configuration written to the config store: %s", id.toString().c_str());
    wrote = true;
  }
  if (HoldsInstances()) wrote |= DeleteStaleInstances(*store, Key(), objects);
  if (wrote) transaction.Commit();
  return wrote;
}

void SshClientConfigImpl::ReadFiles(rapidjson::Document& objects) const {
  AddConfigFile(kSshClientConfigFile, objects);
}

void SshServerConfigImpl::ReadFiles(rapidjson::Document& objects) const {
  AddConfigFile(kSshServerConfigFile, objects);
}

void SshAuthKeysConfigImpl::ReadFiles(rapidjson::Document& objects) const {
  namespace fs = boost::filesystem;
  const std::string prefix = "keys-";
  std::vector<std::string> users;
  boost::system::error_code ec;
  fs::directory_iterator it(QenPlatform::HostPath(kSshDir), ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
        fs::is_directory(it->status()))
      users.push_back(name.substr(prefix.size()));
  }
  std::sort(users.begin(), users.end());

  Allocator& alloc = objects.GetAllocator();
  for (const std::string& user : users) {
    std::string text;
    if (!ReadSshFile(kSshDir + prefix + user + "/authorized_keys", text)) continue;
    rapidjson::Value keys(rapidjson::kArrayType);
    for (const std::string& line : ContentLines(text)) keys.PushBack(rapidjson::Value(line, alloc), alloc);
    rapidjson::Value value(rapidjson::kObjectType);
    value.AddMember("user", rapidjson::Value(user, alloc), alloc);
    value.AddMember("keys", keys, alloc);
    objects.AddMember(rapidjson::Value(user, alloc), value, alloc);
  }
}

}  // namespace System
}  // namespace TavCtl
