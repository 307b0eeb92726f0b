#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "replica/remote/ArrivingContents.h"

namespace kestrowan::test {

/// Contents that arrive as the test says, in a file without a name. One thread.
class GrowingContents : public replica::remote::ArrivingContents {
 public:
  GrowingContents();

  /// More of them is in the file.
  void grow(std::string_view bytes);
  /// The same for so many bytes that no test looks at.
  void grow(std::int64_t bytes);
  /// The system has no descriptors left.
  void refuseToOpen() { isOpenable_ = false; }

  /// What was set last; absent before.
  const std::optional<std::int64_t>& limit() const { return limit_; }
  bool isCancelled() const { return isCancelled_; }

  std::optional<std::int64_t> size() const override { return std::nullopt; }
  bool hasVersion() const override { return true; }
  bool isOf(const NSData&) const override { return true; }
  UniqueFd open() const override;
  std::int64_t bytes() const override { return bytes_; }
  void whenReached(std::int64_t offset, std::function<void()> function) override;
  void setLimit(std::int64_t bytes) override { limit_ = bytes; }
  void cancel() override { isCancelled_ = true; }

 private:
  const UniqueFd file_;
  bool isOpenable_ = true;
  bool isCancelled_ = false;
  std::int64_t bytes_ = 0;
  std::optional<std::int64_t> limit_;
  std::multimap<std::int64_t, std::function<void()>> awaited_;
};

}  // namespace kestrowan::test
