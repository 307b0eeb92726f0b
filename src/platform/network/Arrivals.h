#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/base/Abandonment.h"
#include "platform/network/ArrivingBody.h"

namespace kestrowan {

/// Which downloads of this process are to be read while they arrive. Usable from every thread.
class Arrivals {
 public:
  /// Whether a request with that URL is meant. Must not call back.
  using IsMeant = std::function<bool(const std::string& url)>;
  /// Gets the body when the head of the answer has come, before any byte of it is taken. Called on
  /// the transfer thread, with the list's lock held: must not block, nor call the list.
  using Notice = std::function<void(const std::shared_ptr<ArrivingBody>& body)>;

  static Arrivals& shared();

  /// Has `notice` told of each download with that method and URL whose task has `abandonment`,
  /// which may be null. Ends when the result goes, which waits for a notice that is being given.
  std::shared_ptr<void> watch(std::string httpMethod, IsMeant isMeant,
                              std::shared_ptr<Abandonment> abandonment, Notice notice);

  /// The head of a download has come. `make` makes its body, for a download that is watched, and
  /// may give null. Gives the body, or null.
  std::shared_ptr<ArrivingBody> announce(
      std::string_view httpMethod, const std::string& url,
      const std::shared_ptr<Abandonment>& abandonment,
      const std::function<std::shared_ptr<ArrivingBody>()>& make);

 private:
  struct Watch {
    std::string httpMethod;
    IsMeant isMeant;
    std::shared_ptr<Abandonment> abandonment;
    Notice notice;
  };

  std::mutex mutex_;  // guards what follows; held while a notice is given
  std::list<Watch> watches_;
};

}  // namespace kestrowan
