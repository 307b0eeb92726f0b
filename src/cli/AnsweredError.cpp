#include "cli/AnsweredError.h"

#include <charconv>
#include <utility>

#include "host/FinishedRequests.h"

namespace kestrowan::cli {

namespace {

const std::string kStatusKey = "KestrowanHTTPStatus";
const std::string kRequestKey = "KestrowanHTTPRequest";

}  // namespace

NSError withAnswer(const NSError& error, const std::shared_ptr<Abandonment>& caller) {
  const auto answer = host::answerTo(caller);
  if (!answer || (answer->httpStatus >= 200 && answer->httpStatus <= 299)) return error;
  auto info = error.userInfo();
  info.insert_or_assign(kStatusKey, std::to_string(answer->httpStatus));
  info.insert_or_assign(kRequestKey, answer->request);
  return NSError(error.domain(), error.code(), std::move(info));
}

std::optional<std::int64_t> answerStatus(const NSError& error) {
  const auto found = error.userInfo().find(kStatusKey);
  if (found == error.userInfo().end()) return std::nullopt;
  const std::string& text = found->second;
  std::int64_t status = 0;
  std::from_chars(text.data(), text.data() + text.size(), status);
  return status;
}

std::string answeredRequest(const NSError& error) {
  const auto found = error.userInfo().find(kRequestKey);
  return found == error.userInfo().end() ? std::string() : found->second;
}

NSError::UserInfo plainUserInfo(const NSError& error) {
  auto info = error.userInfo();
  info.erase(kStatusKey);
  info.erase(kRequestKey);
  return info;
}

}  // namespace kestrowan::cli
