#include "replica/remote/IdentifierForm.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kestrowan::replica::remote {
namespace {

const std::string kRoot(NSFileProviderRootContainerItemIdentifier);

/// Calls `use` with every string of at most `longest` of these bytes.
void forAll(std::string_view bytes, std::size_t longest,
            const std::function<void(const std::string&)>& use) {
  std::vector<std::string> now{""};
  for (std::size_t length = 0; length <= longest; ++length) {
    std::vector<std::string> next;
    for (const auto& text : now) {
      use(text);
      for (const char byte : bytes) next.push_back(text + byte);
    }
    now = std::move(next);
  }
}

/// The names that a path leads through; nothing for what is no path. Written to be plain.
std::optional<std::vector<std::string>> namesOf(const std::string& path) {
  if (path.empty() || path[0] != '/') return std::nullopt;
  std::vector<std::string> names{""};
  for (std::size_t at = 1; at < path.size(); ++at) {
    if (path[at] == '/') {
      names.emplace_back();
    } else {
      names.back() += path[at];
    }
  }
  for (const auto& name : names) {
    if (name.empty() || name == "." || name == ".." || name.size() > 255) return std::nullopt;
    for (const char byte : name) {
      if (byte == '\0') return std::nullopt;
    }
  }
  return names;
}

const std::string_view kBytes("/.a\0\xFF", 5);

TEST(IdentifierForm, APathIsMadeOfSlashesAndValidNames) {
  const auto form = IdentifierForm::paths();
  std::size_t valid = 0;
  forAll(kBytes, 7, [&](const std::string& text) {
    const bool expected = namesOf(text).has_value();
    ASSERT_EQ(form.isItem(text), expected) << testing::PrintToString(text);
    ASSERT_EQ(form.isAskable(text), expected) << testing::PrintToString(text);
    if (expected) ++valid;
  });
  EXPECT_GT(valid, 1000u);
}

TEST(IdentifierForm, AnItemsPathIsItsFoldersAndItsName) {
  const auto form = IdentifierForm::paths();
  std::vector<std::string> folders{kRoot};
  std::vector<std::string> names;
  forAll(kBytes, 2, [&](const std::string& text) { folders.push_back(text); });
  forAll(kBytes, 2, [&](const std::string& text) { names.push_back(text); });
  std::size_t proper = 0;
  forAll(kBytes, 5, [&](const std::string& text) {
    const auto parts = namesOf(text);
    for (const auto& folder : folders) {
      const auto above = folder == kRoot ? std::vector<std::string>() : namesOf(folder);
      for (const auto& name : names) {
        bool expected = parts && above && !name.empty();
        if (expected) {
          auto wanted = *above;
          wanted.push_back(name);
          expected = *parts == wanted;
        }
        if (form.isProper(text, folder, name) != expected) {
          FAIL() << testing::PrintToString(text) << " in " << testing::PrintToString(folder)
                 << " as " << testing::PrintToString(name);
        }
        if (expected) ++proper;
      }
    }
  });
  EXPECT_GE(proper, 30u);
}

TEST(IdentifierForm, NoOtherSpellingOfAPathIsProper) {
  const auto form = IdentifierForm::paths();
  EXPECT_TRUE(form.isProper("/Home/x", "/Home", "x"));
  EXPECT_TRUE(form.isProper("/x", kRoot, "x"));
  for (const char* other : {"//Home/x", "/Home//x", "/Home/x/", "/home/x", "Home/x", "/Home/./x",
                            "/Home/d/../x", "/Home/X", "/Home", "/", "", "x", "/x", "//x",
                            "https://127.0.0.1/Home/x", "/Home/d/../.."}) {
    EXPECT_FALSE(form.isProper(other, "/Home", "x")) << other;
  }
  EXPECT_FALSE(form.isProper("//x", kRoot, "x"));
  EXPECT_FALSE(form.isProper("/x", "/", "x"));
  EXPECT_FALSE(form.isProper("//x", "/", "x"));
  EXPECT_FALSE(form.isProper("/x", "", "x"));
  EXPECT_FALSE(form.isProper(kRoot + "/x", kRoot, "x"));
  EXPECT_FALSE(form.isProper(kRoot, kRoot, "x"));
}

TEST(IdentifierForm, ANameHasAtMost255Bytes) {
  const auto form = IdentifierForm::paths();
  const std::string longest(255, 'x');
  EXPECT_TRUE(form.isProper("/Home/" + longest, "/Home", longest));
  EXPECT_TRUE(form.isItem("/" + longest + "/" + longest));
  EXPECT_FALSE(form.isProper("/Home/x" + longest, "/Home", "x" + longest));
  EXPECT_FALSE(form.isItem("/x" + longest + "/a"));
}

TEST(IdentifierForm, BytesOfANameNeedNotBeText) {
  const auto form = IdentifierForm::paths();
  EXPECT_TRUE(form.isProper("/Home/a\xFF\xFE", "/Home", "a\xFF\xFE"));
  // The same letters in another form are other bytes.
  EXPECT_FALSE(form.isProper("/Home/caf\u00e9", "/Home", "cafe\u0301"));
}

TEST(IdentifierForm, TheRootIsAskedForButNoItem) {
  for (const auto& form : {IdentifierForm::paths(), IdentifierForm::opaque()}) {
    EXPECT_TRUE(form.isAskable(kRoot));
    EXPECT_FALSE(form.isItem(kRoot));
    EXPECT_FALSE(form.isAskable(""));
  }
  EXPECT_FALSE(IdentifierForm::paths().isAskable("/"));
}

TEST(IdentifierForm, AnOpaqueIdentifierSaysOnlyWhatItBeginsWith) {
  const auto form = IdentifierForm::opaque("node:");
  EXPECT_TRUE(form.isProper("node:2", "node:1", "any name"));
  EXPECT_TRUE(form.isProper("node:2", kRoot, "any name"));
  EXPECT_TRUE(form.isItem("node:../.."));
  EXPECT_FALSE(form.isProper("/Home/x", "node:1", "x"));
  EXPECT_FALSE(form.isProper("node:2", "/Home", "x"));
  EXPECT_FALSE(form.isProper("node:1", "node:1", "x"));
  EXPECT_FALSE(form.isProper("node:2", "node:1", ".."));
  EXPECT_FALSE(form.isProper("", kRoot, "x"));
  EXPECT_FALSE(form.isProper(kRoot, kRoot, "x"));
}

}  // namespace
}  // namespace kestrowan::replica::remote
