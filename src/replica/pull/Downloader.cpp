#include "replica/pull/Downloader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "async/Aside.h"
#include "platform/base/Threads.h"
#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/foundation/CaughtError.h"
#include "replica/Log.h"
#include "replica/model/Seen.h"
#include "replica/model/View.h"
#include "replica/plan/Requests.h"
#include "replica/pull/SameBytes.h"
#include "replica/pull/Sameness.h"
#include "replica/remote/Retry.h"

namespace kestrowan::replica::pull {

using model::Attributes;
using model::Content;
using model::Edit;
using model::FileTime;
using model::Here;
using model::Intent;
using model::Item;
using model::ItemNumber;
using model::There;
using model::Time;
using model::View;

namespace {

/// Contents are taken only with the version they were asked for; after so many tries, as they are.
constexpr int kTries = 3;
/// A file of more bytes is looked through beside the loop.
constexpr std::int64_t kLarge = 1 << 20;

/// So many fetches that nothing reads any more may go on for a moment while others begin.
constexpr std::size_t kMostUnread = 2;

/// A downloaded file that goes unless it was taken.
class Fetched {
 public:
  explicit Fetched(std::string path) : path_(std::move(path)) {}
  Fetched(const Fetched&) = delete;
  Fetched& operator=(const Fetched&) = delete;
  ~Fetched() { ::unlink(path_.c_str()); }

  const std::string& path() const { return path_; }

 private:
  const std::string path_;
};

std::int64_t sizeOfFile(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) throw posixError(errno);
  return status.st_size;
}

/// Whether these are what is wanted, as far as that is known before they have come.
bool isRight(const There& before, const remote::ArrivingContents& contents) {
  if (contents.size() != before.size) return false;
  return contents.isOf(NSData(plainVersion(before.version.text)));
}

}  // namespace

Downloader::Downloader(model::Tree& tree, async::Scope& scope, remote::Provider& provider,
                       remote::Health& health, const Options& options, store::Contents& contents,
                       const Settler& settler, Space& space, Freezer& freezer, Arrived arrived)
    : tree_(tree),
      scope_(scope),
      provider_(provider),
      health_(health),
      options_(options),
      contents_(contents),
      settler_(settler),
      space_(space),
      freezer_(freezer),
      arrived_(std::move(arrived)) {}

/// The contents that the provider has are not here.
bool Downloader::isWanted(const Item& file) {
  return file.isFile() && file.there() && file.there()->content == Content::none;
}

Task<void> Downloader::fetch(ItemNumber number) {
  {
    const View view(tree_);
    const Item* file = view->find(number);
    if (!file) throw posixError(ESTALE);
    if (!isWanted(*file)) co_return;
  }
  auto waiter = std::make_shared<OneShot<void>>(scope_);
  if (flights_.await(number, waiter)) scope_.spawn(run(number));
  auto fetched = OneShot<void>::result(std::move(waiter));
  co_await std::move(fetched);
}

Task<Stream::Reader> Downloader::open(ItemNumber number) {
  {
    const View view(tree_);
    const Item* file = view->find(number);
    if (!file) throw posixError(ESTALE);
    if (!isWanted(*file)) co_return nullptr;
  }
  auto opener = std::make_shared<OneShot<Stream::Reader>>(scope_);
  if (flights_.await(number, opener)) scope_.spawn(run(number));
  auto opened = OneShot<Stream::Reader>::result(std::move(opener));
  co_return co_await std::move(opened);
}

void Downloader::fetchSoon(ItemNumber number) {
  {
    const View view(tree_);
    const Item* file = view->find(number);
    if (!file || !isWanted(*file) || !health_.isUp()) return;
  }
  if (flights_.want(number)) scope_.spawn(run(number));
}

Task<void> Downloader::run(ItemNumber number) {
  std::exception_ptr problem;
  std::optional<Flights::Ended> ended;
  while (!ended) {
    problem = nullptr;
    try {
      co_await attempt(number);
    } catch (...) {
      problem = std::make_exception_ptr(caughtError());
    }
    ended = flights_.end(number, problem != nullptr);
  }
  if (ended->stream) {
    if (!problem) arrived_(number);
    if (problem && !ended->stream->isUnread()) logBroken(number, problem);
    // Those who still read it there get nothing else.
    ended->stream->fail();
  }
  for (const auto& waiter : ended->waiters) {
    if (problem) {
      waiter->reject(problem);
    } else {
      waiter->resolve();
    }
  }
  for (const auto& opener : ended->openers) {
    if (problem) {
      opener->reject(problem);
    } else {
      opener->resolve(nullptr);
    }
  }
}

/// The programs that read the file only get to know that it cannot be read on.
void Downloader::logBroken(ItemNumber number, const std::exception_ptr& problem) const {
  try {
    std::rethrow_exception(problem);
  } catch (const NSError& error) {
    const View view(tree_);
    logItem("broke off while it was read", *view, number, error.localizedDescription());
  }
}

Task<void> Downloader::attempt(ItemNumber number) {
  remote::Retry retry(scope_, health_, kTries, std::nullopt);
  co_await health_.require();
  for (int tries = 1;; ++tries) {
    NSFileProviderItemIdentifier identifier;
    There before;
    {
      const View view(tree_);
      const Item* file = view->find(number);
      if (!file || !file->there()) throw posixError(ESTALE);
      if (!isWanted(*file)) co_return;
      before = *file->there();
      identifier = view->identifier(*file);
    }
    auto taking = roomFor(before.size);
    const auto room = co_await std::move(taking);
    std::optional<NSError> problem;
    remote::FetchedFile fetched;
    try {
      auto fetching = fetchOnce(number, identifier, before);
      fetched = co_await std::move(fetching);
    } catch (...) {
      problem = caughtError();
    }
    // Says nothing of the server.
    if (problem && flights_.isCancelled(number)) throw *problem;
    health_.note(problem);
    if (!problem) {
      auto adopting = take(number, before, fetched, tries >= kTries);
      if (co_await std::move(adopting)) co_return;
      continue;
    }
    if (tries >= kTries) throw *problem;
    // Perhaps it was looked for where it no longer is.
    if (hasMoved(number, identifier)) continue;
    const NSError error = *problem;
    auto again = retry.after(error);
    if (!co_await std::move(again) || flights_.isCancelled(number)) throw error;
  }
}

Task<std::shared_ptr<void>> Downloader::roomFor(std::int64_t bytes) {
  auto room = space_.takeFree(bytes);
  if (!room) {
    async::Loop::Function take = [&] { room = space_.take(bytes); };
    co_await async::runAside(scope_, std::move(take));
  }
  co_return room;
}

Task<remote::FetchedFile> Downloader::fetchOnce(ItemNumber number,
                                                NSFileProviderItemIdentifier identifier,
                                                There before) {
  std::shared_ptr<void> watch;
  std::function<void()> begun;
  if (options_.watchArrival && options_.streamFrom > 0 && before.size >= options_.streamFrom) {
    flights_.cancelUnread(kMostUnread);
    begun = [&] {
      watch = options_.watchArrival(identifier, [this, number, before](auto contents) {
        contents->setLimit(Stream::kAhead);
        scope_.post([this, number, before, contents = std::move(contents)] {
          noteArrival(number, before, contents);
        });
      });
    };
  }
  try {
    auto fetching = provider_.fetch(identifier, before.size, std::move(begun));
    auto fetched = co_await std::move(fetching);
    flights_.pause(number);
    co_return fetched;
  } catch (...) {
    flights_.pause(number);
    throw;
  }
}

void Downloader::noteArrival(ItemNumber number, const There& before,
                             const Flights::Contents& contents) {
  auto stream = flights_.stream(number);
  const bool isOther = stream && (stream->version() != before.version || stream->isWhole());
  if (isOther) stream->fail();
  // Without a version they continue nothing: they may be of another one than what was read.
  const bool continues = stream && !isOther && !stream->hasFailed();
  const bool isReadable = isRight(before, *contents) && (!continues || contents->hasVersion());
  if (!isReadable) {
    contents->setLimit(remote::ArrivingContents::kNoLimit);
    if (continues && contents->hasVersion()) stream->fail();
    return;
  }
  if (!continues) {
    stream = std::make_shared<Stream>(scope_, before.version, contents_.next(), before.size,
                                      [this, number] { flights_.cancelUnread(number); });
  }
  if (!stream->goOn(contents)) {
    contents->setLimit(remote::ArrivingContents::kNoLimit);
    return;
  }
  flights_.arrive(number, std::move(stream), contents, provider_.excuse(before.size));
}

Task<bool> Downloader::take(ItemNumber number, There before, remote::FetchedFile fetched,
                            bool isLast) {
  const Fetched file(fetched.path);
  if (const auto stream = flights_.stream(number)) stream->finish();
  bool isTaken = false;
  async::Loop::Function take = [&] { isTaken = adopt(number, before, fetched, isLast); };
  if (sizeOfFile(file.path()) > kLarge) {
    co_await async::runAside(scope_, std::move(take));
  } else {
    take();
  }
  co_return isTaken;
}

bool Downloader::hasMoved(ItemNumber number, const NSFileProviderItemIdentifier& identifier) const {
  const View view(tree_);
  const Item* file = view->find(number);
  return file && file->there() && view->identifier(*file) != identifier;
}

/// Takes a fetched file as contents; false when it has to be fetched again.
bool Downloader::adopt(ItemNumber number, const There& before, const remote::FetchedFile& fetched,
                       bool isLast) {
  const std::int64_t bytes = sizeOfFile(fetched.path);
  There after = thereOf(*fetched.item, before.place.folder, {}, options_, Source::answer);
  after.place = before.place;
  after.identifier = before.identifier;
  // An answer without a version says nothing of the size that was announced.
  if (!after.isVersionKnown) after.size = before.size;
  const std::int64_t announced = after.size;
  const bool isSameVersion = canBeSame(options_, before, after);
  const bool isSame = isSameVersion && bytes == announced;
  if (!isSame && !isLast) {
    // What was known may be older than the file: the next try compares with what is known now.
    if (after.isVersionKnown) noteNewer(number, after);
    return false;
  }
  if (!isSame && isSameVersion && announced != 0) {
    // Nothing changes the file, and still these are not its contents.
    const View view(tree_);
    logItem("fetched with another size than announced", *view, number);
    throw NSError(NSURLErrorDomain, NSURLErrorCannotParseResponse);
  }
  There now = before;
  if (after.isVersionKnown && isSame) {
    now.version = after.version;
    now.isVersionKnown = true;
    now.date = after.date;
  } else if (!isSame) {
    now.isVersionKnown = false;
  }
  now.size = bytes;
  // The file itself here, and what lies here in the place that it has there.
  const Frozen ours = freezer_.freeze(number);
  const Frozen rival = freezer_.freeze(rivalOf(number));
  const Content same = sameContent(number, {ours.number, rival.number}, fetched.path);
  if (same != Content::none) {
    write(number, before, now, same);
    return true;
  }
  const auto stream = flights_.stream(number);
  const bool wasRead = stream && stream->isWhole() && stream->version() == before.version;
  auto made = contents_.adopt(fetched.path, wasRead ? stream->number() : contents_.next());
  if (write(number, before, now, made.number())) made.keep();
  return true;
}

void Downloader::noteNewer(ItemNumber number, const There& now) {
  Edit edit(tree_);
  const Item* file = edit->find(number);
  if (!file || !file->there() || file->there()->place != now.place) return;
  if (canBeSame(options_, *file->there(), now)) return;
  edit.setThere(number, asOtherState(*file->there(), now));
  settler_.settleAll(edit);
  edit.commit();
}

ItemNumber Downloader::rivalOf(ItemNumber number) const {
  const View view(tree_);
  const Item* file = view->find(number);
  const Item* other = file && file->there() ? view->hereAt(file->there()->place) : nullptr;
  return other && other != file ? other->number() : ItemNumber::none;
}

/// What the fetched bytes may turn out to be: what is here in their place, and what requests
/// without an answer may have put there, the latest first.
std::vector<Content> Downloader::candidates(ItemNumber number,
                                            const std::vector<Content>& here) const {
  std::vector<Content> result;
  for (const Content content : here) {
    if (content != Content::none) result.push_back(content);
  }
  const View view(tree_);
  const Item* file = view->find(number);
  if (!file || !file->there()) return result;
  const auto path = view->therePath(*file);
  auto intents = view->intents().atOrAbove(path);
  std::reverse(intents.begin(), intents.end());
  for (const Intent* intent : intents) {
    if (intent->verb == model::Verb::put && intent->target == path) {
      result.push_back(intent->content);
    }
  }
  return result;
}

/// Contents that are here and hold the same bytes; `none` when there are none.
Content Downloader::sameContent(ItemNumber number, const std::vector<Content>& here,
                                const std::string& path) const {
  const std::int64_t size = sizeOfFile(path);
  for (const Content candidate : candidates(number, here)) {
    const std::string other = contents_.path(candidate);
    struct stat status;
    if (::stat(other.c_str(), &status) != 0 || status.st_size != size) continue;
    if (haveSameBytes(other, path)) return candidate;
  }
  return Content::none;
}

/// Whether the provider's version is still the one whose contents these are.
bool Downloader::write(ItemNumber number, const There& before, const There& now, Content content) {
  Edit edit(tree_);
  const Item* file = edit->find(number);
  if (!file || !file->there() || file->there()->version != before.version) return false;
  There there = now;
  there.place = file->there()->place;
  there.content = Content::none;
  const bool isAgreed = file->agreed() && file->agreed()->version == before.version;
  if (isAgreed) {
    There agreed = there;
    agreed.place = file->agreed()->place;
    agreed.content = file->agreed()->content;
    edit.describeAgreed(number, std::move(agreed));
  }
  edit.setThere(number, std::move(there));
  plan::noteFetched(edit, number, now.version, content);
  Attributes attributes = file->attributes();
  attributes.lastUse = Time(std::chrono::milliseconds(scope_.wallClock()));
  if (file->here() && file->here()->content == content && isAgreed) {
    attributes.size.reset();
    contents_.setModified(content, attributes.modified.value_or(model::modifiedOf(now)));
  }
  edit.setAttributes(number, std::move(attributes));
  settler_.settleAll(edit);
  edit.commit();
  return true;
}

}  // namespace kestrowan::replica::pull
