#pragma once

#include <cstdint>

namespace kestrowan {

/// The answer to a request, without its body. Immutable, shared by pointer.
class NSURLResponse {
 public:
  virtual ~NSURLResponse() = default;
};

/// The answer of an HTTP server.
class NSHTTPURLResponse : public NSURLResponse {
 public:
  explicit NSHTTPURLResponse(std::int64_t statusCode) : statusCode_(statusCode) {}

  std::int64_t statusCode() const { return statusCode_; }

 private:
  std::int64_t statusCode_;
};

}  // namespace kestrowan
