#include "JsonErrors.h"

#include <gtest/gtest.h>

#include <regex>

#include "ConfigStoreException.h"
#include "QenJson.h"

namespace QenTest {
namespace {

struct Thrown {
  int code = -1;
  std::string what;
};

Thrown Catch(const std::function<void()>& f) {
  Thrown t;
  try {
    f();
  } catch (const QenConfigStore::ConfigStoreException& e) {
    t.code = e.GetErrorCode();
    t.what = e.what();
  }
  return t;
}

const std::regex kForm("JSON error:\"([^\"]+)\":([0-9]+): (.+)");

}  // namespace

std::string JsonLibraryFile() {
  const Thrown t = Catch([] { (void)rapidjson::Value().MemberCount(); });
  std::smatch m;
  if (!std::regex_match(t.what, m, kForm)) return "(no JSON library error: " + t.what + ")";
  return m[1];
}

void ExpectJsonLibraryError(const std::function<void()>& f, const std::string& condition) {
  const Thrown t = Catch(f);
  EXPECT_EQ(t.code, 1082) << t.what;
  std::smatch m;
  ASSERT_TRUE(std::regex_match(t.what, m, kForm)) << t.what;
  EXPECT_EQ(m[1].str(), JsonLibraryFile()) << t.what;
  EXPECT_EQ(m[3].str(), condition) << t.what;
}

}  // namespace QenTest
