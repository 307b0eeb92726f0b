#include "platform/linux/CurlRequest.h"

#include <algorithm>
#include <charconv>
#include <new>
#include <string>
#include <string_view>

#include "platform/linux/CurlError.h"

namespace kestrowan {

namespace {

constexpr std::string_view kScheme = "https://";
constexpr std::string_view kBlanks = " \t";

bool isTokenCharacter(char character) {
  constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
         (character >= 'A' && character <= 'Z') || kMarks.find(character) != std::string_view::npos;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool isPort(std::string_view text) {
  unsigned port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port >= 1 && port <= 65535;
}

bool hasHTTPSScheme(std::string_view url) {
  if (url.size() < kScheme.size()) return false;
  return std::equal(kScheme.begin(), kScheme.end(), url.begin(), [](char expected, char found) {
    return expected == (found >= 'A' && found <= 'Z' ? found - 'A' + 'a' : found);
  });
}

bool isAuthority(std::string_view authority) {
  // A user name would make curl write an Authorization header of its own.
  if (authority.find('@') != std::string_view::npos) return false;
  const auto hostEnd = authority.find(authority.starts_with('[') ? ']' : ':');
  if (authority.starts_with('[')) {
    if (hostEnd == std::string_view::npos || hostEnd == 1) return false;
    const auto rest = authority.substr(hostEnd + 1);
    return rest.empty() || (rest.front() == ':' && isPort(rest.substr(1)));
  }
  if (hostEnd == std::string_view::npos) return !authority.empty();
  return hostEnd > 0 && isPort(authority.substr(hostEnd + 1));
}

bool isURL(std::string_view url) {
  const auto isVisible = [](char character) { return character > 0x20 && character < 0x7F; };
  if (!hasHTTPSScheme(url) || !std::all_of(url.begin(), url.end(), isVisible)) return false;
  url.remove_prefix(kScheme.size());
  return isAuthority(url.substr(0, url.find_first_of("/?#")));
}

void checkHeaders(const HTTPHeaders& headers) {
  constexpr std::string_view kLineEnds("\r\n\0", 3);
  for (const auto& [name, value] : headers) {
    if (!isToken(name) || value.find_first_of(kLineEnds) != std::string::npos) {
      throw urlError(NSURLErrorBadURL, "a header cannot be sent");
    }
  }
}

void append(CurlList& list, const std::string& line) {
  auto* longer = curl_slist_append(list.get(), line.c_str());
  if (!longer) throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(longer);
}

void append(CurlList& list, const HTTPHeaders& headers) {
  for (const auto& [name, value] : headers) {
    // curl takes "Name:" for "leave this header out" and "Name;" for an empty value.
    const bool isEmpty = value.find_first_not_of(kBlanks) == std::string::npos;
    append(list, isEmpty ? name + ";" : name + ": " + value);
  }
}

}  // namespace

void checkRequest(const NSURLRequest& request, const HTTPHeaders& sessionHeaders) {
  if (request.url.isFileURL() || !isURL(request.url.absoluteString())) {
    throw urlError(NSURLErrorBadURL);
  }
  if (!isToken(request.httpMethod)) {
    throw urlError(NSURLErrorBadURL, "the method cannot be sent");
  }
  checkHeaders(sessionHeaders);
  checkHeaders(request.headers);
}

CurlList headerLines(const HTTPHeaders& sessionHeaders, const HTTPHeaders& requestHeaders) {
  CurlList list;
  append(list, sessionHeaders);
  append(list, requestHeaders);
  append(list, "Expect:");
  return list;
}

}  // namespace kestrowan
