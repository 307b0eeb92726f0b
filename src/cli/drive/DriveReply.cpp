#include "cli/drive/DriveReply.h"

#include <utility>

#include "cli/JSONForms.h"

namespace kestrowan::cli {

Driver::Reply::Reply(Driver& driver, JSONValue id) : driver_(driver), id_(std::move(id)) {
  std::lock_guard lock(driver_.mutex_);
  ++driver_.running_;
}

Driver::Reply::~Reply() {
  std::lock_guard lock(driver_.mutex_);
  --driver_.running_;
  driver_.idle_.notify_all();
}

void Driver::Reply::complete(const std::optional<NSError>& error, JSONValue::Object members) {
  std::lock_guard lock(mutex_);
  completed_ = true;
  // Another thread may be quick enough to complete before the entry point returns: that is not
  // what a host means by a synchronous completion.
  synchronous_ = !returned_ && std::this_thread::get_id() == caller_;
  error_ = error;
  members_ = std::move(members);
  if (returned_) write();
}

void Driver::Reply::returned(std::shared_ptr<NSProgress> progress) {
  std::lock_guard lock(mutex_);
  returned_ = true;
  progress_ = std::move(progress);
  if (completed_) write();
}

void Driver::Reply::write() {
  JSONValue::Object line{{"id", id_}, {"error", jsonForm(error_)}, {"synchronous", synchronous_}};
  for (auto& member : members_) line.push_back(std::move(member));
  if (progress_) {
    line.emplace_back("progress",
                      JSONValue::Object{{"totalUnitCount", progress_->totalUnitCount()},
                                        {"completedUnitCount", progress_->completedUnitCount()}});
  }
  driver_.write(line);
}

}  // namespace kestrowan::cli
