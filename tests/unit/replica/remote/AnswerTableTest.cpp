#include "replica/remote/AnswerTable.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "platform/fileprovider/NSFileProviderError.h"
#include "replica/remote/ErrorClass.h"

namespace kestrowan::replica::remote {
namespace {

Answer change(std::int64_t httpStatus) {
  return {"PUT", true, httpStatus};
}

Answer look(std::int64_t httpStatus) {
  return {"PROPFIND", false, httpStatus};
}

TEST(AnswerTable, SaysInWordsWhatTheServerAnswered) {
  EXPECT_EQ(AnswerTable::error(change(403)).localizedDescription(),
            "the server forbids it (403 to PUT)");
  EXPECT_EQ(AnswerTable::error(change(507)).localizedDescription(),
            "no room at the server (507 to PUT)");
  EXPECT_EQ(AnswerTable::error(look(418)).localizedDescription(),
            "the server refuses it (418 to PROPFIND)");
  EXPECT_EQ(AnswerTable::error(look(302)).localizedDescription(),
            "the server sends the request elsewhere (302 to PROPFIND)");
}

TEST(AnswerTable, OnlyAFinalAnswerToAChangeIsADenial) {
  for (const std::int64_t status : {400, 403, 405, 409, 413, 414, 415, 422, 423, 451, 501, 507}) {
    EXPECT_EQ(errorClass(AnswerTable::error(change(status))), ErrorClass::denied) << status;
    EXPECT_EQ(errorClass(AnswerTable::error(look(status))), ErrorClass::ambiguous) << status;
    const auto undecided = AnswerTable::undecided(AnswerTable::error(change(status)));
    EXPECT_EQ(errorClass(undecided), ErrorClass::ambiguous) << status;
    EXPECT_EQ(AnswerTable::httpStatus(undecided), status);
  }
  for (const std::int64_t status : {100, 302, 401, 404, 408, 410, 412, 418, 429, 500, 502, 503}) {
    EXPECT_EQ(errorClass(AnswerTable::error(change(status))), ErrorClass::ambiguous) << status;
  }
}

TEST(AnswerTable, OtherErrorsHaveNoStatus) {
  const auto error = NSFileProviderError(NSFileProviderErrorCode::serverUnreachable);
  EXPECT_EQ(AnswerTable::httpStatus(error), std::nullopt);
  EXPECT_FALSE(AnswerTable::isDenial(error));
}

TEST(AnswerTable, HasARowForAStatusOnce) {
  std::set<std::int64_t> seen;
  for (const auto& row : AnswerTable::rows()) {
    EXPECT_TRUE(seen.insert(row.httpStatus).second) << row.httpStatus;
    EXPECT_FALSE(row.reason.empty());
    EXPECT_FALSE(row.words.empty());
    EXPECT_FALSE(row.passes && row.number == 0) << row.httpStatus;
  }
}

std::string nameOf(int number) {
  static const std::map<int, std::string> names = {
      {0, "EIO"},       {EINVAL, "EINVAL"},         {EACCES, "EACCES"},
      {EPERM, "EPERM"}, {EFBIG, "EFBIG"},           {ENAMETOOLONG, "ENAMETOOLONG"},
      {EBUSY, "EBUSY"}, {EOPNOTSUPP, "EOPNOTSUPP"}, {EDQUOT, "EDQUOT"}};
  return names.at(number);
}

TEST(AnswerTable, IsPrintedInTheDocument) {
  std::ifstream file(KFP_SOURCE_DIR "/docs/MOUNT.md");
  std::stringstream text;
  text << file.rdbuf();
  std::string rows;
  for (const auto& row : AnswerTable::rows()) {
    rows += "| " + std::to_string(row.httpStatus) + " | " + std::string(row.words) + " | " +
            (row.number == 0 ? std::string("tried again") : nameOf(row.number)) + " | " +
            nameOf(row.readingNumber) + " | `" + std::string(row.reason) + "` |\n";
  }
  EXPECT_NE(text.str().find(rows), std::string::npos) << rows;
}

}  // namespace
}  // namespace kestrowan::replica::remote
