#include <gtest/gtest.h>

#include "platform/fileprovider/NSFileProviderError.h"
#include "platform/fileprovider/NSFileProviderItem.h"
#include "support/Cases.h"

namespace kestrowan {
namespace {

JSONValue bit(std::uint64_t value) {
  return static_cast<std::int64_t>(value);
}

JSONValue code(std::int64_t value) {
  return value;
}

JSONValue code(NSFileProviderErrorCode value) {
  return static_cast<std::int64_t>(value);
}

const std::map<std::string, JSONValue>& constants() {
  namespace Capability = NSFileProviderItemCapability;
  namespace Field = NSFileProviderItemField;
  static const std::map<std::string, JSONValue> all = {
      {"NSFileProviderRootContainerItemIdentifier", NSFileProviderRootContainerItemIdentifier},
      {"NSFileProviderWorkingSetContainerItemIdentifier",
       NSFileProviderWorkingSetContainerItemIdentifier},
      {"NSFileProviderTrashContainerItemIdentifier", NSFileProviderTrashContainerItemIdentifier},
      {"NSFileProviderErrorDomain", NSFileProviderErrorDomain},
      {"NSPOSIXErrorDomain", NSPOSIXErrorDomain},
      {"NSFileProviderErrorSyncAnchorExpired", code(NSFileProviderErrorCode::syncAnchorExpired)},
      {"NSFileProviderErrorNoSuchItem", code(NSFileProviderErrorCode::noSuchItem)},
      {"NSFileWriteFileExistsError", code(NSFileWriteFileExistsError)},
      {"NSFileProviderItemCapabilitiesAllowsReading", bit(Capability::allowsReading)},
      {"NSFileProviderItemCapabilitiesAllowsReparenting", bit(Capability::allowsReparenting)},
      {"NSFileProviderItemCapabilitiesAllowsRenaming", bit(Capability::allowsRenaming)},
      {"NSFileProviderItemCapabilitiesAllowsTrashing", bit(Capability::allowsTrashing)},
      {"NSFileProviderItemCapabilitiesAllowsDeleting", bit(Capability::allowsDeleting)},
      {"NSFileProviderItemCapabilitiesAllowsEvicting", bit(Capability::allowsEvicting)},
      {"NSFileProviderItemCapabilitiesAllowsExcludingFromSync",
       bit(Capability::allowsExcludingFromSync)},
      {"NSFileProviderItemLastUsedDate", bit(Field::lastUsedDate)},
      {"NSFileProviderItemFavoriteRank", bit(Field::favoriteRank)},
      {"NSFileProviderItemCreationDate", bit(Field::creationDate)},
      {"NSFileProviderItemContentModificationDate", bit(Field::contentModificationDate)},
      {"NSURLErrorCancelled", code(NSURLErrorCancelled)},
      {"NSURLErrorTimedOut", code(NSURLErrorTimedOut)},
      {"NSURLErrorUnsupportedURL", code(NSURLErrorUnsupportedURL)},
      {"NSURLErrorCannotConnectToHost", code(NSURLErrorCannotConnectToHost)},
      {"NSURLErrorNetworkConnectionLost", code(NSURLErrorNetworkConnectionLost)},
      {"NSURLErrorBadServerResponse", code(NSURLErrorBadServerResponse)},
      {"NSURLErrorCannotParseResponse", code(NSURLErrorCannotParseResponse)},
      {"NSURLErrorFileDoesNotExist", code(NSURLErrorFileDoesNotExist)},
      {"NSURLErrorSecureConnectionFailed", code(NSURLErrorSecureConnectionFailed)},
      {"NSURLErrorCannotCreateFile", code(NSURLErrorCannotCreateFile)},
  };
  return all;
}

TEST(PlatformConstantsTest, ConstantsHaveTheirValues) {
  test::checkCases("platform-constants", "constant", [](const test::Case& one) {
    const auto found = constants().find(one.bytes);
    return found == constants().end() ? JSONValue() : found->second;
  });
}

TEST(PlatformConstantsTest, FieldsAreDistinctBits) {
  namespace Field = NSFileProviderItemField;
  NSFileProviderItemFields all = 0;
  int count = 0;
  for (const auto field :
       {Field::contents, Field::filename, Field::parentItemIdentifier, Field::lastUsedDate,
        Field::tagData, Field::favoriteRank, Field::creationDate, Field::contentModificationDate,
        Field::fileSystemFlags, Field::extendedAttributes, Field::typeAndCreator}) {
    EXPECT_EQ(all & field, 0U);
    all |= field;
    ++count;
  }
  EXPECT_EQ(all, (1U << count) - 1);
}

}  // namespace
}  // namespace kestrowan
