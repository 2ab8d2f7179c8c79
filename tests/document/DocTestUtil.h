// Helpers for the document library's tests.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ConfigStoreDocument.h"
#include "ConfigStoreException.h"

namespace DocTest {

inline rapidjson::Document Parse(const std::string& text) {
  rapidjson::Document d;
  ConfigStoreDocument::CreateDocument(text, d);
  return d;
}

// Runs `f`, expecting a ConfigStoreException with this code and message.
inline void ExpectStoreError(const std::function<void()>& f, int code, const std::string& message) {
  try {
    f();
    ADD_FAILURE() << "no exception, expected " << code << " " << message;
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), code);
    EXPECT_EQ(std::string(e.what()), message);
  }
}

// A value of `levels` nested arrays ([[[...]]]), built without recursion.
inline void MakeDeep(rapidjson::Document& doc, int levels, bool objects = false) {
  rapidjson::Value* cur = &doc;
  for (int i = 1; i < levels; ++i) {
    if (objects) {
      cur->SetObject();
      cur->AddMember("a", rapidjson::Value(rapidjson::kObjectType), doc.GetAllocator());
      cur = &cur->MemberBegin()->value;
    } else {
      cur->SetArray();
      cur->PushBack(rapidjson::Value(rapidjson::kArrayType), doc.GetAllocator());
      cur = &(*cur)[0];
    }
  }
  if (objects) cur->SetObject(); else cur->SetArray();
}

}  // namespace DocTest
