#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "StoreSupport.h"
#include "replica/model/Edit.h"
#include "replica/model/KeptItem.h"
#include "replica/model/View.h"
#include "replica/store/TreeJournal.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica::store {

/// A directory with a tree in it, which is open.
class TreeFixture : public testing::Test {
 protected:
  static constexpr model::Time kNow{std::chrono::milliseconds(1'700'000'000'000)};

  TreeFixture() { open(); }

  void open() {
    journal_.emplace(directory(), remote::IdentifierForm::paths(), kNow);
    tree_.emplace(*journal_, journal_->load());
  }
  void close() {
    tree_.reset();
    journal_.reset();
  }
  /// With these statements between.
  void reopen(const char* statements = nullptr) {
    close();
    if (statements) Database(file()).execute(statements);
    open();
  }
  TreeJournal& journal() { return *journal_; }
  model::Tree& tree() { return *tree_; }
  const std::string& directory() const { return directory_.path(); }
  std::string file() const { return directory() + "/replica.db"; }
  std::string logFile() const { return file() + "-wal"; }

  /// In step; of `size` bytes, which are `content`.
  model::ItemNumber add(model::Kind kind, const std::string& name,
                        model::ItemNumber folder = model::ItemNumber::root,
                        model::Content content = model::Content::none, std::int64_t size = 7) {
    model::Edit edit(tree());
    const model::ItemNumber number = edit.make(kind);
    model::There there{{folder, name}, {kind == model::Kind::file ? "1" : ""}, content};
    there.size = size;
    edit.setHere(number, model::Here{there.place, content});
    edit.setThere(number, there);
    edit.setAgreed(number, there);
    edit.commit();
    return number;
  }
  /// Here alone.
  model::ItemNumber addHere(const std::string& name, model::Content content = model::Content::none,
                            std::optional<std::int64_t> size = {}) {
    model::Edit edit(tree());
    const model::ItemNumber number = edit.make(model::Kind::file);
    edit.setHere(number, model::Here{{model::ItemNumber::root, name}, content});
    model::Attributes attributes;
    attributes.size = size;
    edit.setAttributes(number, attributes);
    edit.commit();
    return number;
  }

  static std::map<model::ItemNumber, model::KeptItem> itemsOf(const model::Tree& tree) {
    std::map<model::ItemNumber, model::KeptItem> result;
    const model::View view(tree);
    view->forEach([&](const model::Item& item) { result[item.number()] = keptItem(item); });
    return result;
  }
  std::map<model::ItemNumber, model::KeptItem> items() { return itemsOf(tree()); }

 private:
  const test::TemporaryDirectory directory_;
  std::optional<TreeJournal> journal_;
  std::optional<model::Tree> tree_;
};

}  // namespace kestrowan::replica::store
