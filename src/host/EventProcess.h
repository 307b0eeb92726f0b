#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/UniqueFd.h"

namespace kestrowan::host {

/// The process that makes event calls, from the host's side: the own program under an internal
/// command, in a session of its own, without environment and without descriptors but the socket.
/// Owned by one thread, during whose life the process lives at most; not thread-safe. Nothing
/// waits.
class EventProcess {
 public:
  /// Starts it. `program`: what is run. Throws `NSError` of `NSPOSIXErrorDomain`.
  explicit EventProcess(const std::string& program = "/proc/self/exe");
  EventProcess(const EventProcess&) = delete;
  EventProcess& operator=(const EventProcess&) = delete;
  /// Kills it, and waits for one that has ended: its number may then become another's.
  ~EventProcess();

  pid_t number() const { return number_; }
  /// Readable when there is an answer, or it has closed its end.
  int descriptor() const { return socket_.get(); }

  /// False when the packet cannot be sent.
  bool send(const std::string& packet);
  struct Answer {
    /// The number of the call's error, or 0.
    int error = 0;

    friend bool operator==(const Answer&, const Answer&) = default;
  };
  /// Absent when there is none now; `isClosed` then says whether there will be one.
  std::optional<Answer> answer();
  bool isClosed() const { return isClosed_; }

  void kill();
  bool hasEnded() const;

 private:
  UniqueFd socket_;
  pid_t number_ = -1;
  bool isClosed_ = false;
};

}  // namespace kestrowan::host
