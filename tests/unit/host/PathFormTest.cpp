#include "host/PathForm.h"

#include <gtest/gtest.h>

namespace kestrowan::host {
namespace {

std::string thereAndBack(std::string_view path) {
  JSONValue::Object form;
  addPath(form, "path", path);
  return pathIn(*JSONValue::parse(JSONValue(form).serialized()), "path");
}

TEST(PathForm, EveryPathComesBackAsItWas) {
  std::string bytes = "/";
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  for (const std::string& path : {std::string("/"), std::string("/Home/ü"), std::string(), bytes,
                                  std::string("/\xff"), std::string("/a\0b", 4)}) {
    EXPECT_EQ(thereAndBack(path), path);
  }
}

TEST(PathForm, ReadablePathsAreOneMember) {
  JSONValue::Object form;
  addPath(form, "path", "/Home/ü");
  EXPECT_EQ(JSONValue(form).serialized(), R"({"path":"/Home/ü"})");
}

TEST(PathForm, WhatIsNoPathIsEmpty) {
  for (const auto* text : {R"({})", R"({"path":7})", R"({"pathHex":"4"})", R"({"pathHex":"zz"})",
                           R"({"pathHex":"+1"})", R"({"path":"/a","pathHex":"4x"})"}) {
    EXPECT_EQ(pathIn(*JSONValue::parse(text), "path"), "") << text;
  }
}

}  // namespace
}  // namespace kestrowan::host
