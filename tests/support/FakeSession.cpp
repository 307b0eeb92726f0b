#include "support/FakeSession.h"

#include <fstream>
#include <sstream>
#include <utility>

#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSUUID.h"

namespace kestrowan::test {

struct FakeNetwork::State {
  mutable std::mutex mutex;
  std::deque<Answer> answers;
  std::vector<SentRequest> requests;
  std::vector<NSURLSessionConfiguration> configurations;
  bool withoutHTTP = false;
  std::function<void(const SentRequest&)> hook;

  /// Records the request and takes its answer; throws the answer's transport error.
  Answer exchange(const NSURLRequest& request, std::optional<std::string> body) {
    SentRequest sent{request.httpMethod + " " + request.url.absoluteString(),
                     {},
                     request.timeoutInterval,
                     std::move(body)};
    for (const auto& [name, value] : request.headers) sent.headers.push_back(name + ": " + value);
    std::unique_lock lock(mutex);
    requests.push_back(sent);
    if (const auto hookNow = hook) {
      lock.unlock();
      hookNow(sent);
      lock.lock();
    }
    if (answers.empty()) throw NSError(NSURLErrorDomain, NSURLErrorCannotConnectToHost);
    Answer answer = std::move(answers.front());
    answers.pop_front();
    if (answer.error) throw *answer.error;
    return answer;
  }

  std::shared_ptr<const NSURLResponse> response(const Answer& answer) const {
    if (withoutHTTP) return std::make_shared<const NSURLResponse>();
    return std::make_shared<const NSHTTPURLResponse>(answer.status);
  }
};

class FakeNetwork::Session : public NSURLSession {
 public:
  explicit Session(std::shared_ptr<State> state) : state_(std::move(state)) {}

  Task<std::shared_ptr<const NSURLResponse>> dataTask(
      NSURLRequest request, std::shared_ptr<NSURLSessionDataReceiver> receiver) override {
    const Answer answer = state_->exchange(request, std::nullopt);
    if (receiver) {
      const auto half = answer.body.size() / 2;
      receiver->didReceiveData(std::string_view(answer.body).substr(0, half));
      receiver->didReceiveData(std::string_view(answer.body).substr(half));
    }
    co_return state_->response(answer);
  }

  Task<NSURLSessionDownload> downloadTask(NSURLRequest request) override {
    const Answer answer = state_->exchange(request, std::nullopt);
    const auto manager = NSFileManager::defaultManager();
    NSURL location =
        manager->temporaryDirectory().appendingPathComponent("download-" + newUUIDString());
    manager->createFile(location, answer.body);
    NSURLSessionDownload download{std::move(location), state_->response(answer)};
    co_return download;
  }

  Task<std::shared_ptr<const NSURLResponse>> uploadTask(NSURLRequest request,
                                                        NSURL fromFile) override {
    std::ifstream file(fromFile.path(), std::ios::binary);
    if (!file) throw NSError(NSURLErrorDomain, NSURLErrorFileDoesNotExist);
    std::ostringstream body;
    body << file.rdbuf();
    const Answer answer = state_->exchange(request, body.str());
    co_return state_->response(answer);
  }

 private:
  const std::shared_ptr<State> state_;
};

FakeNetwork::FakeNetwork() : state_(std::make_shared<State>()) {
  NSURLSession::setFactory([state = state_](const NSURLSessionConfiguration& configuration,
                                            std::weak_ptr<NSURLSessionDelegate>) {
    std::lock_guard lock(state->mutex);
    state->configurations.push_back(configuration);
    return std::make_shared<Session>(state);
  });
}

FakeNetwork::~FakeNetwork() {
  NSURLSession::setFactory({});
}

void FakeNetwork::answer(Answer answer) {
  std::lock_guard lock(state_->mutex);
  state_->answers.push_back(std::move(answer));
}

void FakeNetwork::beforeAnswer(std::function<void(const SentRequest&)> hook) {
  std::lock_guard lock(state_->mutex);
  state_->hook = std::move(hook);
}

void FakeNetwork::answerWithoutHTTP() {
  std::lock_guard lock(state_->mutex);
  state_->withoutHTTP = true;
}

std::vector<SentRequest> FakeNetwork::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<std::string> FakeNetwork::lines() const {
  std::vector<std::string> lines;
  for (auto& request : requests()) {
    const auto method = request.line.substr(0, request.line.find(' '));
    const auto path = request.line.find('/', request.line.find("://") + 3);
    lines.push_back(method + " " + request.line.substr(path));
  }
  return lines;
}

std::vector<NSURLSessionConfiguration> FakeNetwork::configurations() const {
  std::lock_guard lock(state_->mutex);
  return state_->configurations;
}

std::string multistatus(const std::string& responses) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<D:multistatus xmlns:D=\"DAV:\">" +
         responses + "</D:multistatus>";
}

std::string response(const std::string& href, const std::string& properties) {
  return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop>" + properties +
         "</D:prop></D:propstat></D:response>";
}

}  // namespace kestrowan::test
