#include "host/FailureReason.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/remote/AnswerTable.h"

namespace kestrowan::host {
namespace {

using replica::remote::AnswerTable;
using replica::remote::kAnswerDomain;

bool isListed(std::string_view reason) {
  const auto& words = reasonWords();
  return std::any_of(words.begin(), words.end(),
                     [&](const ReasonWord& word) { return word.reason == reason; });
}

TEST(FailureReason, ErrorsHaveTheirWords) {
  EXPECT_EQ(reasonOf(posixError(EEXIST)), "exists");
  EXPECT_EQ(reasonOf(posixError(EIO)), "other");
  EXPECT_EQ(reasonOf(kAnswerDomain, 403), "forbidden");
  EXPECT_EQ(reasonOf(kAnswerDomain, 507), "full");
  EXPECT_EQ(reasonOf(NSFileProviderErrorDomain, -1004), "refused");
  EXPECT_EQ(reasonOf(NSURLErrorDomain, -999), "certificate");
  EXPECT_EQ(reasonOf(NSURLErrorDomain, -1202), "insecure");
  EXPECT_EQ(reasonOf(NSURLErrorDomain, -1003), "unreachable");
  EXPECT_EQ(reasonOf(NSURLErrorDomain, -3003), "local-file");
  EXPECT_EQ(reasonOf(kCommandDomain, 7), "not-mounted");
  EXPECT_EQ(reasonOf("elsewhere", 1), "other");
}

TEST(FailureReason, EveryWordThatIsGivenIsListedOnce) {
  std::set<std::string_view> seen;
  for (const auto& word : reasonWords()) EXPECT_TRUE(seen.insert(word.reason).second);
  for (const auto domain : {NSFileProviderErrorDomain, NSPOSIXErrorDomain, NSCocoaErrorDomain,
                            NSURLErrorDomain, kCommandDomain}) {
    for (std::int64_t code = -4000; code < 4000; ++code) {
      EXPECT_TRUE(isListed(reasonOf(domain, code))) << domain << " " << code;
    }
  }
  for (std::int64_t status = 0; status < 1000; ++status) {
    EXPECT_TRUE(isListed(reasonOf(kAnswerDomain, status))) << status;
  }
}

TEST(FailureReason, TheDocumentHasAllWords) {
  std::ifstream file(KFP_SOURCE_DIR "/docs/COMMANDS.md");
  std::stringstream text;
  text << file.rdbuf();
  std::string rows;
  for (const auto& [reason, meaning] : reasonWords()) {
    rows += "| `" + std::string(reason) + "` | " + std::string(meaning) + " |\n";
  }
  EXPECT_NE(text.str().find(rows), std::string::npos) << rows;
}

}  // namespace
}  // namespace kestrowan::host
