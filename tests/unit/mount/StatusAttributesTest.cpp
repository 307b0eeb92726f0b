#include "mount/StatusAttributes.h"

#include <gtest/gtest.h>

namespace kestrowan::mount {
namespace {

replica::ItemStatus file() {
  replica::ItemStatus status;
  status.path = "/folder.d/report.txt";
  status.state = replica::SyncState::waiting;
  status.changes = "contents, rename";
  status.identifier = "/folder.d/report.txt";
  status.version = "etag-1";
  status.downloaded = true;
  return status;
}

TEST(StatusAttributesTest, OnlyThePrefixIsReserved) {
  EXPECT_TRUE(isStatusAttribute("user.kestrowan.state"));
  EXPECT_TRUE(isStatusAttribute("user.kestrowan.anything"));
  EXPECT_FALSE(isStatusAttribute("user.kestrowan"));
  EXPECT_FALSE(isStatusAttribute("user.comment"));
}

TEST(StatusAttributesTest, AFileTellsWhereItStands) {
  EXPECT_EQ(statusAttribute(file(), "user.kestrowan.identifier"), "/folder.d/report.txt");
  EXPECT_EQ(statusAttribute(file(), "user.kestrowan.version"), "etag-1");
  EXPECT_EQ(statusAttribute(file(), "user.kestrowan.state"), "waiting");
  EXPECT_EQ(statusAttribute(file(), "user.kestrowan.type"), "public.plain-text");
  EXPECT_EQ(statusAttribute(file(), "user.kestrowan.changes"), "contents, rename");
  EXPECT_EQ(statusAttribute(file(), "user.kestrowan.downloaded"), "yes");
  EXPECT_EQ(statusAttribute(file(), "user.kestrowan.pinned"), "no");
}

TEST(StatusAttributesTest, WhatIsNotThereHasNoAttribute) {
  auto status = file();
  status.identifier.clear();
  status.version.clear();
  EXPECT_EQ(statusAttribute(status, "user.kestrowan.identifier"), std::nullopt);
  EXPECT_EQ(statusAttribute(status, "user.kestrowan.version"), std::nullopt);
  EXPECT_EQ(statusAttribute(status, "user.kestrowan.error"), std::nullopt);
  EXPECT_EQ(statusAttribute(status, "user.kestrowan.unknown"), std::nullopt);
  EXPECT_EQ(statusAttribute(status, "user.comment"), std::nullopt);
}

TEST(StatusAttributesTest, AFailureIsTold) {
  auto status = file();
  status.failure = replica::SyncFailure{.text = "The server is full."};
  EXPECT_EQ(statusAttribute(status, "user.kestrowan.error"), "The server is full.");
}

TEST(StatusAttributesTest, TypesComeFromTheKindAndTheName) {
  auto status = file();
  status.path = "/folder.d/README";
  EXPECT_EQ(statusAttribute(status, "user.kestrowan.type"), "public.data");
  status.path = "/folder.d";
  status.kind = replica::ItemKind::folder;
  EXPECT_EQ(statusAttribute(status, "user.kestrowan.type"), "public.folder");
}

}  // namespace
}  // namespace kestrowan::mount
