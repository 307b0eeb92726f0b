#pragma once

#include <functional>
#include <memory>

#include "platform/fileprovider/NSFileProviderItem.h"
#include "replica/remote/ArrivingContents.h"

namespace kestrowan::host {

/// Finds the download that our extension makes for a fetch of a file, and tells of it when the
/// server has said that the file follows: see `replica::remote::ArrivalWatch`. Usable from every
/// thread.
std::shared_ptr<void> watchDownload(
    const NSFileProviderItemIdentifier& file,
    std::function<void(std::shared_ptr<replica::remote::ArrivingContents>)> begun);

}  // namespace kestrowan::host
