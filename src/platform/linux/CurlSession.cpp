#include "platform/linux/CurlSession.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/linux/CurlBodyPipe.h"
#include "platform/linux/CurlDownloadFile.h"

namespace kestrowan {

namespace {

using Response = std::shared_ptr<const NSURLResponse>;
using Headers = std::shared_ptr<const HTTPHeaders>;

/// Awaited once: submits a transfer with its reader already waiting, so that the reader continues
/// on the executor however fast the answer comes.
struct Submission {
  std::shared_ptr<CurlEngine> engine;
  std::shared_ptr<CurlTransfer> transfer;
  CurlBodyPipe* pipe;

  bool await_ready() const noexcept { return false; }
  bool await_suspend(std::coroutine_handle<> reader) {
    pipe->wait(reader);
    // The reader may run, and this awaiter be gone, before `submit` returns.
    const auto submitTo = std::move(engine);
    auto submitted = std::move(transfer);
    submitTo->submit(std::move(submitted));
    return true;
  }
  void await_resume() const noexcept {}
};

struct MoreData {
  CurlBodyPipe* pipe;

  bool await_ready() const noexcept { return false; }
  bool await_suspend(std::coroutine_handle<> reader) { return pipe->wait(reader); }
  void await_resume() const noexcept {}
};

/// Hands what has gathered in `pipe` to `receiver`, as a piece of `body`; whether nothing more
/// comes. Throws the error of a failed transfer.
bool handOver(CurlBodyPipe& pipe, std::string& piece, NSURLSessionDataReceiver& receiver,
              const std::shared_ptr<ReceivedBody>& body, CurlEngine& engine,
              const std::shared_ptr<CurlTransfer>& transfer) {
  try {
    const auto taken = pipe.take(piece);
    if (taken.wasFull) engine.resume(transfer);
    const ReceivedBody::Delivery delivery(body);
    if (!piece.empty()) receiver.didReceiveData(piece);
    return taken.ended;
  } catch (...) {
    // Its place must not wait for a reader that has gone.
    transfer->giveUp();
    engine.dropUnwanted();
    throw;
  }
}

Task<Response> sendForData(std::shared_ptr<CurlEngine> engine, Headers headers,
                           NSURLRequest request,
                           std::shared_ptr<NSURLSessionDataReceiver> receiver) {
  const auto pipe = std::make_shared<CurlBodyPipe>();
  const auto body = std::make_shared<ReceivedBody>();
  AbandonmentOfTask ofTask;
  auto abandonment = co_await ofTask;
  const auto transfer = std::make_shared<CurlTransfer>(CurlTransfer::Kind::data, std::move(request),
                                                       *headers, pipe, std::move(abandonment));
  transfer->setBody(body);
  Submission submission{engine, transfer, pipe.get()};
  co_await submission;
  std::string piece;
  while (!handOver(*pipe, piece, *receiver, body, *engine, transfer)) {
    MoreData more{pipe.get()};
    co_await more;
  }
  co_return pipe->response();
}

Task<Response> sendDiscarding(std::shared_ptr<CurlEngine> engine, Headers headers,
                              CurlTransfer::Kind kind, NSURLRequest request,
                              std::optional<NSURL> upload) {
  const auto result = std::make_shared<CurlDiscardingSink::Result>();
  const auto sink = std::make_shared<CurlDiscardingSink>(result);
  AbandonmentOfTask ofTask;
  auto abandonment = co_await ofTask;
  engine->submit(std::make_shared<CurlTransfer>(kind, std::move(request), *headers, sink,
                                                std::move(abandonment), std::move(upload)));
  auto end = CurlDiscardingSink::Result::result(result);
  co_return co_await std::move(end);
}

/// What reads a body while it arrives may outlive both.
ArrivingBody::Controls controlsOf(const std::weak_ptr<CurlEngine>& engine,
                                  const std::weak_ptr<CurlTransfer>& transfer) {
  const auto goOn = [engine, transfer] {
    const auto living = engine.lock();
    auto paused = transfer.lock();
    if (living && paused) living->resume(std::move(paused));
  };
  const auto cancel = [engine, transfer] {
    const auto living = engine.lock();
    const auto unwanted = transfer.lock();
    if (!living || !unwanted) return;
    unwanted->giveUp();
    living->dropUnwanted();
  };
  return {goOn, cancel};
}

Task<NSURLSessionDownload> sendForFile(std::shared_ptr<CurlEngine> engine, Headers headers,
                                       NSURLRequest request) {
  const auto result = std::make_shared<CurlDownloadSink::Result>();
  const auto sink = std::make_shared<CurlDownloadSink>(result);
  AbandonmentOfTask ofTask;
  auto abandonment = co_await ofTask;
  auto transfer = std::make_shared<CurlTransfer>(CurlTransfer::Kind::download, std::move(request),
                                                 *headers, sink, std::move(abandonment));
  transfer->setControls(controlsOf(engine, transfer));
  engine->submit(std::move(transfer));
  auto end = CurlDownloadSink::Result::result(result);
  co_return co_await std::move(end);
}

/// A session on curl. Its tasks keep the engine, not the session, so that releasing the session
/// ends them.
class CurlSession : public NSURLSession {
 public:
  CurlSession(const NSURLSessionConfiguration& configuration,
              std::weak_ptr<NSURLSessionDelegate> delegate, CurlLimits limits)
      : timeout_(configuration.timeoutIntervalForRequest),
        headers_(std::make_shared<HTTPHeaders>(configuration.HTTPAdditionalHeaders)),
        engine_(std::make_shared<CurlEngine>(std::move(delegate), limits)) {}
  ~CurlSession() override { engine_->stop(); }

  CurlEngine& engine() { return *engine_; }

  Task<Response> dataTask(NSURLRequest request,
                          std::shared_ptr<NSURLSessionDataReceiver> receiver) override {
    request = limited(std::move(request));
    if (receiver) return sendForData(engine_, headers_, std::move(request), std::move(receiver));
    return sendDiscarding(engine_, headers_, CurlTransfer::Kind::data, std::move(request), {});
  }

  Task<NSURLSessionDownload> downloadTask(NSURLRequest request) override {
    return sendForFile(engine_, headers_, limited(std::move(request)));
  }

  Task<Response> uploadTask(NSURLRequest request, NSURL fromFile) override {
    return sendDiscarding(engine_, headers_, CurlTransfer::Kind::upload,
                          limited(std::move(request)), std::move(fromFile));
  }

 private:
  NSURLRequest limited(NSURLRequest request) const {
    request.timeoutInterval = std::min(request.timeoutInterval, timeout_);
    return request;
  }

  double timeout_;  // seconds
  Headers headers_;
  std::shared_ptr<CurlEngine> engine_;
};

struct FactoryPlace {
  std::mutex mutex;
  NSURLSession::Factory factory;
};

FactoryPlace& factoryPlace() {
  static FactoryPlace place;
  return place;
}

}  // namespace

std::shared_ptr<NSURLSession> makeCurlSession(const NSURLSessionConfiguration& configuration,
                                              std::weak_ptr<NSURLSessionDelegate> delegate,
                                              CurlLimits limits) {
  auto session = std::make_shared<CurlSession>(configuration, std::move(delegate), limits);
  session->engine().setSession(session);
  return session;
}

std::shared_ptr<NSURLSession> NSURLSession::session(const NSURLSessionConfiguration& configuration,
                                                    std::weak_ptr<NSURLSessionDelegate> delegate) {
  Factory factory;
  {
    std::lock_guard lock(factoryPlace().mutex);
    factory = factoryPlace().factory;
  }
  if (factory) return factory(configuration, std::move(delegate));
  return makeCurlSession(configuration, std::move(delegate));
}

void NSURLSession::setFactory(Factory factory) {
  std::lock_guard lock(factoryPlace().mutex);
  factoryPlace().factory = std::move(factory);
}

}  // namespace kestrowan
