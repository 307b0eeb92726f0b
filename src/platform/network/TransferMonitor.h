#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrowan {

/// How far the body of one request has come; counts are bytes and written by the transfer thread.
struct TransferStatus {
  std::string httpMethod;
  std::string url;
  std::int64_t bytesSent = 0;
  std::int64_t bytesReceived = 0;
  /// Of the body that is sent; absent for a request without one.
  std::optional<std::int64_t> bytesExpectedToSend;
  /// As the server announced it; absent while or when unknown.
  std::optional<std::int64_t> bytesExpectedToReceive;
};

/// The transfers in flight in this process, for whoever shows progress. Usable from every thread.
class TransferMonitor {
 public:
  using Clock = std::chrono::steady_clock;

  /// One transfer in flight: registered while it lives.
  class Entry {
   public:
    Entry(TransferMonitor& monitor, TransferStatus status);
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry();

    /// The counts so far; each call replaces the value of the one before.
    void sent(std::int64_t bytes);
    void received(std::int64_t bytes);
    void expectToReceive(std::int64_t bytes);
    /// What the connection has moved for the request so far, in both directions, heads included.
    void moved(std::int64_t bytes);
    /// Something came of the server, or need not come at present.
    void stirred();

   private:
    friend class TransferMonitor;
    TransferMonitor& monitor_;
    // Guarded by the monitor's mutex.
    TransferStatus status_;
    std::int64_t bytesMoved_ = 0;
    const Clock::time_point begunAt_ = Clock::now();
  };

  static TransferMonitor& shared();

  std::vector<TransferStatus> transfers() const;
  /// Bytes that all transfers of this process have moved so far. Brought up to date about once a
  /// second; never shrinks.
  std::int64_t bytesMoved() const;
  /// For how long requests have waited, and nothing has moved for any of them; 0 without requests.
  /// Exact to about a second.
  std::chrono::seconds silence() const;

 private:
  mutable std::mutex mutex_;
  std::set<const Entry*> entries_;
  std::int64_t bytesMoved_ = 0;
  Clock::time_point stirredAt_ = Clock::time_point::min();
};

}  // namespace kestrowan
