#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "platform/foundation/NSError.h"
#include "replica/store/ItemStore.h"
#include "support/TemporaryDirectory.h"

namespace kestrowan::replica {

/// The POSIX code that `action` throws; 0 when it throws nothing. The text must name the database.
inline std::int64_t errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const NSError& error) {
    EXPECT_EQ(error.domain(), NSPOSIXErrorDomain);
    EXPECT_NE(error.localizedDescription().find("/replica.db"), std::string::npos)
        << error.localizedDescription();
    return error.code();
  }
  return 0;
}

inline ItemRecord item(Rid rid) {
  ItemRecord record;
  record.rid = rid;
  record.parent = kRootRid;
  record.name = "item " + std::to_string(rid);
  return record;
}

inline std::map<Rid, ItemRecord> rowsOf(ItemStore& store) {
  std::map<Rid, ItemRecord> rows;
  EXPECT_EQ(store.load([&](ItemRecord record) { rows[record.rid] = std::move(record); }), 0u);
  return rows;
}

/// Runs `body` in a child process, which then ends without any orderliness. Gives what the body
/// reported with the function that it gets: "" when all was well.
inline std::string inChild(
    const std::function<void(const std::function<void(const std::string&)>&)>& body) {
  int ends[2];
  if (::pipe(ends) != 0) return "pipe";
  const pid_t child = ::fork();
  if (child < 0) return "fork";
  if (child == 0) {
    const auto report = [&](const std::string& text) {
      if (::write(ends[1], text.data(), text.size()) < 0) ::_exit(2);
    };
    try {
      body(report);
    } catch (const NSError& error) {
      report("thrown: " + error.localizedDescription());
    }
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string reported;
  std::array<char, 256> buffer;
  for (ssize_t count; (count = ::read(ends[0], buffer.data(), buffer.size())) > 0;) {
    reported.append(buffer.data(), static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (status != 0) reported += " ended with status " + std::to_string(status);
  return reported;
}

/// Mounts a file system of 1 MiB that only this process and its children see.
inline bool mountSmallFileSystem(const std::string& directory) {
  return (::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", directory.c_str(), "tmpfs", 0, "size=1m") == 0;
}

inline bool canMount() {
  const test::TemporaryDirectory directory;
  return inChild([&](auto report) {
           if (!mountSmallFileSystem(directory.path())) report("no");
         })
      .empty();
}

/// A directory with a store in it.
class ItemStoreFixture : public ::testing::Test {
 protected:
  ItemStore& store() {
    if (!store_) store_ = std::make_unique<ItemStore>(directory());
    return *store_;
  }
  void close() { store_.reset(); }
  void reopen() {
    close();
    store();
  }
  std::map<Rid, ItemRecord> rows() { return rowsOf(store()); }
  std::set<std::string> names() {
    std::set<std::string> names;
    for (const auto& [rid, record] : rows()) names.insert(record.name);
    return names;
  }
  const std::string& directory() const { return directory_.path(); }
  std::string file() const { return directory() + "/replica.db"; }
  std::string logFile() const { return file() + "-wal"; }

 private:
  test::TemporaryDirectory directory_;
  std::unique_ptr<ItemStore> store_;
};

}  // namespace kestrowan::replica
