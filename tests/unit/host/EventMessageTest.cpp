#include "host/EventMessage.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrowan::host {
namespace {

using mount::EventKind;

EventMessage message(EventKind kind) {
  return {kind, "/home/ada/Storage", "0:47", {"Home", "two\nlines"}, "name"};
}

TEST(EventMessage, IsReadAsItWasWritten) {
  for (const auto kind : {EventKind::placeFile, EventKind::makeFolder, EventKind::removeFile,
                          EventKind::removeFolder, EventKind::touch}) {
    EXPECT_EQ(EventMessage::parse(message(kind).packet()), message(kind));
  }
  const EventMessage root{EventKind::touch, "/m", "0:1", {}, ""};
  EXPECT_EQ(EventMessage::parse(root.packet()), root);
}

TEST(EventMessage, NamesThatLeadElsewhereAreRefused) {
  for (const char* name : {"", ".", "..", "a/b", "/"}) {
    auto bad = message(EventKind::removeFile);
    bad.name = name;
    EXPECT_EQ(EventMessage::parse(bad.packet()), std::nullopt) << name;
    bad = message(EventKind::touch);
    bad.way.emplace_back(name);
    EXPECT_EQ(EventMessage::parse(bad.packet()), std::nullopt) << name;
  }
}

TEST(EventMessage, PacketsThatAreNoneAreRefused) {
  const auto packet = message(EventKind::placeFile).packet();
  for (std::size_t length = 0; length < packet.size(); ++length) {
    const auto parsed = EventMessage::parse(packet.substr(0, length));
    // Without its last names it is one of another folder.
    if (parsed) {
      EXPECT_LT(parsed->way.size(), 2u);
    }
  }
  EXPECT_EQ(EventMessage::parse("X" + packet.substr(1)), std::nullopt);
  EXPECT_EQ(EventMessage::parse("PP" + packet.substr(1)), std::nullopt);
  auto bad = message(EventKind::touch);
  bad.mountPoint.clear();
  EXPECT_EQ(EventMessage::parse(bad.packet()), std::nullopt);
}

}  // namespace
}  // namespace kestrowan::host
