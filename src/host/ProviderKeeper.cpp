#include "host/ProviderKeeper.h"

#include <string_view>
#include <utility>

#include "extension/FileProviderExtension.h"
#include "items/FPItem.h"
#include "platform/base/Threads.h"

namespace kestrowan::host {

ProviderFactory extensionFactory(NSFileProviderDomain domain) {
  return [domain = std::move(domain)] { return std::make_shared<FileProviderExtension>(domain); };
}

decltype(replica::Options::wouldRefuse) extensionRefusals() {
  return [](const NSFileProviderItemIdentifier& folder, std::string_view name) {
    return !FileProviderExtension::validName(name) ||
           FPItem::isHomeProtected(FileProviderExtension::childPath(folder, name));
  };
}

ProviderKeeper::ProviderKeeper(Functions functions, std::chrono::milliseconds interval)
    : functions_(std::move(functions)), interval_(interval) {
  thread_ = startThread("the provider keeper", [this] { run(); });
}

ProviderKeeper::~ProviderKeeper() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void ProviderKeeper::start() {
  replace();
}

void ProviderKeeper::renew() {
  {
    std::lock_guard lock(mutex_);
    wanted_ = true;
  }
  changed_.notify_all();
}

void ProviderKeeper::run() {
  bool failed = false;
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    const bool told = changed_.wait_for(lock, interval_, [this] { return stopping_ || wanted_; });
    if (stopping_) return;
    wanted_ = false;
    lock.unlock();
    failed = !guarded("the provider keeper", [&] {
      if (told || failed || functions_.isHeld()) replace();
    });
    lock.lock();
  }
}

void ProviderKeeper::replace() {
  // The one that read the bridge file last is the one that stays.
  std::lock_guard lock(replacing_);
  functions_.use(functions_.make());
}

}  // namespace kestrowan::host
