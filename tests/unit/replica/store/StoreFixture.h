#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "TreeFixture.h"
#include "replica/store/Contents.h"
#include "replica/store/History.h"
#include "support/SimulatedLoop.h"

namespace kestrowan::replica::store {

/// A tree with the files of its contents and a history.
class StoreFixture : public TreeFixture {
 protected:
  StoreFixture() { openStore(); }

  /// The end of the process, and a new one. Nothing is repaired.
  void end() {
    history_.reset();
    contents_.reset();
    files_.reset();
    close();
  }
  void start() {
    open();
    openStore();
  }
  /// With these statements between.
  void restart(const char* statements = nullptr) {
    end();
    if (statements) Database(file()).execute(statements);
    start();
  }
  History& history() { return *history_; }
  ContentFiles& files() { return *files_; }
  Contents& contents() { return *contents_; }

  static ContentNumber plain(model::Content content) { return static_cast<ContentNumber>(content); }
  /// New contents of these bytes, which nothing refers to.
  model::Content made(const std::string& bytes) {
    auto made = contents().create();
    made.keep();
    writeFile(files().path(plain(made.number())), bytes);
    return made.number();
  }
  bool isThere(model::Content content) { return files().allocated(plain(content)).has_value(); }
  std::optional<HistoryEntry> entry(model::Content content) {
    return history().find(plain(content));
  }
  /// The seconds of the loop's date.
  std::int64_t seconds() const { return loop_.wallClock() / 1000; }

  /// Other contents, here alone.
  void save(model::ItemNumber number, model::Content content, std::int64_t size,
            model::Origin origin = model::Origin::program) {
    if (origin == model::Origin::program) {
      history().noteWritten(static_cast<ContentNumber>(content));
    }
    model::Edit edit(tree(), origin);
    const model::Item& item = edit->item(number);
    model::Attributes attributes = item.attributes();
    attributes.size = size;
    attributes.changed = model::FileTime(std::chrono::milliseconds(loop_.wallClock()));
    attributes.modified = attributes.changed;
    edit.setHere(number, model::Here{item.here()->place, content});
    edit.setAttributes(number, std::move(attributes));
    edit.commit();
  }
  void drop(model::ItemNumber number, model::Origin origin) {
    model::Edit edit(tree(), origin);
    edit.drop(number);
    edit.commit();
  }

  test::SimulatedLoop loop_;

 private:
  void openStore() {
    files_.emplace(directory());
    auto last = plain(journal().firstFreeContent());
    for (const ContentNumber number : files_->numbers()) last = std::max(last, number);
    contents_.emplace(*files_, model::Content{last});
    history_.emplace(journal(), *files_, loop_);
  }

  std::optional<ContentFiles> files_;
  std::optional<Contents> contents_;
  std::optional<History> history_;
};

}  // namespace kestrowan::replica::store
