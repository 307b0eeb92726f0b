// Measures the network layer against a running server; bench/network.py starts both.
//
//   bench_network requests URL CERTIFICATE AUTHORIZATION CONNECTIONS COUNT
//   bench_network download URL CERTIFICATE AUTHORIZATION CONNECTIONS COUNT
//   bench_network upload   URL CERTIFICATE AUTHORIZATION CONNECTIONS FILE
//
// Writes one JSON object: seconds, requests, bytes and the process's largest resident size in KiB.

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/NSData.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/linux/CurlSession.h"

namespace kestrowan {
namespace {

constexpr int kWorkers = 200;

class PinningDelegate : public NSURLSessionDelegate {
 public:
  explicit PinningDelegate(NSData pin) : pin_(std::move(pin)) {}

  void urlSession(NSURLSession&, const NSURLAuthenticationChallenge& challenge,
                  const NSURLSessionChallengeHandler& completionHandler) override {
    const auto& trust = challenge.protectionSpace.serverTrust;
    const bool isPinned = trust && trust->certificateChain && !trust->certificateChain->empty() &&
                          trust->certificateChain->front().der == pin_;
    completionHandler(isPinned
                          ? NSURLSessionAuthChallengeDisposition::useCredential
                          : NSURLSessionAuthChallengeDisposition::cancelAuthenticationChallenge,
                      {});
  }

 private:
  const NSData pin_;
};

class Counter : public NSURLSessionDataReceiver {
 public:
  explicit Counter(std::atomic<long long>& bytes) : bytes_(bytes) {}
  void didReceiveData(std::string_view data) override {
    bytes_ += static_cast<long long>(data.size());
  }

 private:
  std::atomic<long long>& bytes_;
};

struct Run {
  std::shared_ptr<NSURLSession> session;
  NSURLRequest request;
  std::atomic<int> left = 0;
  std::atomic<int> workers = 0;
  std::atomic<int> failures = 0;
  std::atomic<long long> bytes = 0;
  std::promise<void> end;
  std::mutex mutex;
  std::vector<NSURL> downloads;  // guarded by mutex
};

void note(Run& run, const NSURLResponse& response) {
  const auto status = dynamic_cast<const NSHTTPURLResponse&>(response).statusCode();
  if (status < 200 || status > 299) ++run.failures;
}

Task<void> oneRequest(Run& run) {
  const auto counter = std::make_shared<Counter>(run.bytes);
  auto task = run.session->dataTask(run.request, counter);
  note(run, *co_await std::move(task));
}

Task<void> oneDownload(Run& run) {
  auto task = run.session->downloadTask(run.request);
  const auto download = co_await std::move(task);
  note(run, *download.response);
  run.bytes += NSFileManager::defaultManager()->fileSize(download.location).value_or(0);
  const std::lock_guard lock(run.mutex);
  run.downloads.push_back(download.location);
}

Task<void> oneUpload(Run& run, NSURL file) {
  auto task = run.session->uploadTask(run.request, file);
  note(run, *co_await std::move(task));
  run.bytes += NSFileManager::defaultManager()->fileSize(file).value_or(0);
}

Task<void> work(Run& run, std::string_view mode, NSURL file) {
  while (run.left-- > 0) {
    try {
      if (mode == "requests") {
        auto task = oneRequest(run);
        co_await std::move(task);
      } else if (mode == "download") {
        auto task = oneDownload(run);
        co_await std::move(task);
      } else {
        auto task = oneUpload(run, file);
        co_await std::move(task);
      }
    } catch (const NSError& error) {
      std::fprintf(stderr, "%s\n", error.localizedDescription().c_str());
      ++run.failures;
    }
  }
  if (--run.workers == 0) run.end.set_value();
}

NSData derOf(const char* pemPath) {
  std::ifstream file(pemPath);
  std::string base64;
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with("-")) base64 += line;
  }
  return dataFromBase64(base64).value_or("");
}

int measure(char** arguments) {
  const std::string_view mode = arguments[1];
  const auto delegate = std::make_shared<PinningDelegate>(derOf(arguments[3]));
  NSURLSessionConfiguration configuration;
  configuration.HTTPAdditionalHeaders = {{"Authorization", arguments[4]}};
  CurlLimits limits;
  limits.transfers = static_cast<std::size_t>(std::atoi(arguments[5]));
  limits.files = limits.transfers;
  limits.mostTransfers = limits.transfers;

  Run run{makeCurlSession(configuration, delegate, limits), {NSURL::URLWithString(arguments[2])}};
  auto file = NSURL::fileURLWithPath("/");
  run.left = 1;
  if (mode == "requests") {
    run.request.httpMethod = "PROPFIND";
    run.request.headers = {{"Depth", "0"}};
    run.left = std::atoi(arguments[6]);
  } else if (mode == "download") {
    run.left = std::atoi(arguments[6]);
  } else {
    run.request.httpMethod = "PUT";
    file = NSURL::fileURLWithPath(arguments[6]);
  }
  const int requests = run.left;
  const int workers = std::min(requests, kWorkers);
  run.workers = workers;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < workers; ++i) startDetached(work(run, mode, file));
  run.end.get_future().wait();
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  for (const auto& each : run.downloads) NSFileManager::defaultManager()->removeItem(each);
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto processor = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  std::printf(
      "{\"seconds\": %.6f, \"processorSeconds\": %.6f, \"requests\": %d, \"failures\": %d, "
      "\"bytes\": %lld, \"kibibytes\": %ld}\n",
      seconds.count(), processor, requests, run.failures.load(), run.bytes.load(), usage.ru_maxrss);
  return run.failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace kestrowan

int main(int count, char** arguments) {
  if (count != 7) {
    std::fprintf(stderr, "usage: see the head of bench/network.cpp\n");
    return 2;
  }
  return kestrowan::measure(arguments);
}
