#include "host/ArrivingDownload.h"

#include <fcntl.h>

#include <string>
#include <utility>

#include "host/StatusForm.h"
#include "host/VersionRules.h"
#include "items/FPItem.h"
#include "platform/network/Arrivals.h"

namespace kestrowan::host {

namespace {

constexpr std::int64_t kSuccess = 200;

/// A download of our extension as the replica reads it.
class ArrivingDownload : public replica::remote::ArrivingContents {
 public:
  explicit ArrivingDownload(std::shared_ptr<ArrivingBody> body) : body_(std::move(body)) {}

  std::optional<std::int64_t> size() const override { return body_->head().length; }
  bool hasVersion() const override { return body_->head().entityTag.has_value(); }
  bool isOf(const NSData& version) const override {
    const auto& tag = body_->head().entityTag;
    return !tag || hasTag(version, *tag);
  }
  UniqueFd open() const override { return UniqueFd(::fcntl(body_->file(), F_DUPFD_CLOEXEC, 0)); }
  std::int64_t bytes() const override { return body_->bytes(); }
  void whenReached(std::int64_t offset, std::function<void()> function) override {
    body_->whenReached(offset, std::move(function));
  }
  void setLimit(std::int64_t bytes) override { body_->setLimit(bytes); }
  void cancel() override { body_->cancel(); }

 private:
  const std::shared_ptr<ArrivingBody> body_;
};

}  // namespace

std::shared_ptr<void> watchDownload(
    const NSFileProviderItemIdentifier& file,
    std::function<void(std::shared_ptr<replica::remote::ArrivingContents>)> begun) {
  const auto isMeant = [path = FPItem::path(file)](const std::string& url) {
    return urlPath(url) == path;
  };
  return Arrivals::shared().watch("GET", isMeant, Abandonment::current(),
                                  [begun = std::move(begun)](const auto& body) {
                                    if (body->head().httpStatus != kSuccess) return;
                                    begun(std::make_shared<ArrivingDownload>(body));
                                  });
}

}  // namespace kestrowan::host
