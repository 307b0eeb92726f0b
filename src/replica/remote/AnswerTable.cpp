#include "replica/remote/AnswerTable.h"

#include <algorithm>
#include <cerrno>
#include <string>

namespace kestrowan::replica::remote {

namespace {

constexpr std::string_view kChangeKey = "KestrowanDeniedRequest";

/// For statuses without a row.
AnswerMeaning meaningOfHundred(std::int64_t hundred) {
  switch (hundred) {
    case 3:
      return {300, "redirected", "the server sends the request elsewhere", 0};
    case 4:
      return {400, "refused", "the server refuses it", 0};
    case 5:
      return {500, "server-failed", "the server fails at it", 0};
    default:
      return {0, "bad-answer", "the server's answer is none that is known", 0};
  }
}

}  // namespace

const std::vector<AnswerMeaning>& AnswerTable::rows() {
  static const std::vector<AnswerMeaning> rows = {
      {400, "invalid", "the server takes the request for invalid", EINVAL},
      {401, "credentials", "the server does not know the user and password", 0},
      {403, "forbidden", "the server forbids it", EACCES, EACCES},
      {404, "missing", "the server has nothing there", 0},
      {405, "not-allowed", "the server does not allow that with what is there", EPERM},
      {409, "conflict", "the server says that something else is in the way", EPERM},
      {413, "too-large", "the server takes no file of that size", EFBIG},
      {414, "name-too-long", "the path is too long for the server", ENAMETOOLONG},
      {415, "kind", "the server takes no file of that kind", EPERM},
      {422, "invalid", "the server cannot do that", EINVAL},
      {423, "locked", "locked at the server", EBUSY, EBUSY, true},
      {424, "locked", "the server cannot do that with all that is in it", EBUSY, 0, true},
      {429, "too-many", "the server has too many requests to do", 0},
      {451, "forbidden", "the server forbids it for legal reasons", EACCES, EACCES},
      {501, "not-supported", "the server cannot do such a thing", EOPNOTSUPP},
      {503, "unavailable", "the server cannot do it at present", 0},
      {507, "full", "no room at the server", EDQUOT, 0, true},
  };
  return rows;
}

AnswerMeaning AnswerTable::meaning(std::int64_t httpStatus) {
  const auto found = std::find_if(rows().begin(), rows().end(), [&](const AnswerMeaning& row) {
    return row.httpStatus == httpStatus;
  });
  return found != rows().end() ? *found : meaningOfHundred(httpStatus / 100);
}

NSError AnswerTable::error(const Answer& answer) {
  const auto known = meaning(answer.httpStatus);
  NSError::UserInfo info;
  info.emplace(NSLocalizedDescriptionKey, std::string(known.words) + " (" +
                                              std::to_string(answer.httpStatus) + " to " +
                                              answer.request + ")");
  if (answer.isChange && known.number != 0) info.emplace(kChangeKey, answer.request);
  return NSError(kAnswerDomain, answer.httpStatus, std::move(info));
}

bool AnswerTable::isDenial(const NSError& error) {
  return error.domain() == kAnswerDomain && error.userInfo().contains(std::string(kChangeKey));
}

NSError AnswerTable::undecided(const NSError& error) {
  auto info = error.userInfo();
  info.erase(std::string(kChangeKey));
  return NSError(error.domain(), error.code(), std::move(info));
}

int AnswerTable::number(const NSError& error) {
  const auto known = meaning(error.code());
  const int number = isDenial(error) ? known.number : known.readingNumber;
  return number != 0 ? number : EIO;
}

std::optional<std::int64_t> AnswerTable::httpStatus(const NSError& error) {
  if (error.domain() != kAnswerDomain) return std::nullopt;
  return error.code();
}

}  // namespace kestrowan::replica::remote
