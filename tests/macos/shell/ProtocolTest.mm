#include <objc/runtime.h>

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ShellTest.h"
#include "macos/DAVEnumerator.h"
#include "macos/FPItem.h"

namespace {

using namespace kestrowan::test;

/// A type encoding without the places of arguments, which differ with the runtime.
std::string withoutOffsets(const char* types) {
  std::string kept;
  for (const char* at = types; *at; ++at) {
    if (*at < '0' || *at > '9') kept += *at;
  }
  return kept;
}

using Selectors = std::set<std::pair<std::string, std::string>>;

/// The selectors that a protocol itself declares, with their types.
Selectors declared(const char* protocolName, bool required) {
  Selectors selectors;
  unsigned count = 0;
  objc_method_description* const methods = protocol_copyMethodDescriptionList(
      objc_getProtocol(protocolName), required ? YES : NO, YES, &count);
  for (unsigned i = 0; i < count; ++i) {
    selectors.insert({sel_getName(methods[i].name), withoutOffsets(methods[i].types)});
  }
  std::free(methods);
  return selectors;
}

/// Those of `selectors` that `type` does not implement with these types.
Selectors missing(Class type, const Selectors& selectors) {
  Selectors absent;
  for (const auto& selector : selectors) {
    const Method method = class_getInstanceMethod(type, sel_registerName(selector.first.c_str()));
    if (!method || withoutOffsets(method_getTypeEncoding(method)) != selector.second) {
      absent.insert(selector);
    }
  }
  return absent;
}

std::set<std::string> namesOf(const Selectors& selectors) {
  std::set<std::string> names;
  for (const auto& selector : selectors) names.insert(selector.first);
  return names;
}

class ProtocolTest : public ShellTest {};

TEST_F(ProtocolTest, PrincipalClassIsFoundByTheNameInThePropertyList) {
  NSDictionary* const list =
      [NSDictionary dictionaryWithContentsOfFile:[NSString stringWithUTF8String:KFP_INFO_PLIST]];
  NSString* const name =
      [[list objectForKey:@"NSExtension"] objectForKey:@"NSExtensionPrincipalClass"];
  ASSERT_TRUE(name);
  EXPECT_EQ(NSClassFromString(name), [FileProviderExtension class]);
  EXPECT_TRUE(class_conformsToProtocol([FileProviderExtension class],
                                       objc_getProtocol("NSFileProviderReplicatedExtension")));
}

TEST_F(ProtocolTest, ExtensionHasEverySelectorWithItsTypes) {
  const auto required = declared("NSFileProviderReplicatedExtension", true);
  EXPECT_EQ(namesOf(required),
            (std::set<std::string>{
                "initWithDomain:", "invalidate", "itemForIdentifier:request:completionHandler:",
                "fetchContentsForItemWithIdentifier:version:request:completionHandler:",
                "createItemBasedOnTemplate:fields:contents:options:request:completionHandler:",
                "modifyItem:baseVersion:changedFields:contents:options:request:completionHandler:",
                "deleteItemWithIdentifier:baseVersion:options:request:completionHandler:"}));
  EXPECT_EQ(missing([FileProviderExtension class], required), Selectors());

  const auto enumerating = declared("NSFileProviderEnumerating", true);
  EXPECT_EQ(namesOf(enumerating),
            (std::set<std::string>{"enumeratorForContainerItemIdentifier:request:error:"}));
  EXPECT_EQ(missing([FileProviderExtension class], enumerating), Selectors());
}

TEST_F(ProtocolTest, ExtensionHasNoneOfTheOptionalSelectors) {
  for (const char* name :
       {"importDidFinishWithCompletionHandler:", "materializedItemsDidChangeWithCompletionHandler:",
        "pendingItemsDidChangeWithCompletionHandler:"}) {
    EXPECT_FALSE([FileProviderExtension instancesRespondToSelector:sel_registerName(name)]) << name;
  }
}

TEST_F(ProtocolTest, EnumeratorHasEveryRequiredSelectorWithItsTypes) {
  const auto required = declared("NSFileProviderEnumerator", true);
  EXPECT_EQ(namesOf(required),
            (std::set<std::string>{"invalidate", "enumerateItemsForObserver:startingAtPage:"}));
  EXPECT_EQ(missing([DAVEnumerator class], required), Selectors());
}

TEST_F(ProtocolTest, ItemHasEveryRequiredSelectorWithItsTypes) {
  const auto required = declared("NSFileProviderItem", true);
  EXPECT_EQ(namesOf(required),
            (std::set<std::string>{"itemIdentifier", "parentItemIdentifier", "filename"}));
  EXPECT_EQ(missing([FPItem class], required), Selectors());
}

// The runtime here does not know of optional selectors, so they are written down with the rest.
TEST_F(ProtocolTest, TypesOfAllSelectorsAreThoseOfThePlatform) {
  EXPECT_EQ(
      missing(
          [FileProviderExtension class],
          {
            {"itemForIdentifier:request:completionHandler:", "@@:@@@?"},
                {"fetchContentsForItemWithIdentifier:version:request:completionHandler:",
                 "@@:@@@@?"},
                {"createItemBasedOnTemplate:fields:contents:options:request:completionHandler:",
                 "@@:@Q@Q@@?"},
                {"modifyItem:baseVersion:changedFields:contents:options:request:completionHandler:",
                 "@@:@@Q@Q@@?"},
                {"deleteItemWithIdentifier:baseVersion:options:request:completionHandler:",
                 "@@:@@Q@@?"},
                {"enumeratorForContainerItemIdentifier:request:error:", "@@:@@^@"},
                {"initWithDomain:", "@@:@"}, {
              "invalidate", "v@:"
            }
          }),
      Selectors());
  EXPECT_EQ(missing([DAVEnumerator class],
                    {
                      {"invalidate", "v@:"}, {"enumerateItemsForObserver:startingAtPage:", "v@:@@"},
                          {"enumerateChangesForObserver:fromSyncAnchor:", "v@:@@"}, {
                        "currentSyncAnchorWithCompletionHandler:", "v@:@?"
                      }
                    }),
            Selectors());
  EXPECT_EQ(missing([FPItem class],
                    {
                      {"itemIdentifier", "@@:"}, {"parentItemIdentifier", "@@:"},
                          {"filename", "@@:"}, {"contentType", "@@:"}, {"capabilities", "Q@:"},
                          {"documentSize", "@@:"}, {"contentModificationDate", "@@:"}, {
                        "itemVersion", "@@:"
                      }
                    }),
            Selectors());
}

using ProtocolDeathTest = ProtocolTest;

TEST_F(ProtocolDeathTest, ObjectsCannotBeMadeWithoutTheirValues) {
  EXPECT_DEATH([[NSClassFromString(@"FPItem") alloc] init], "without its values");
  EXPECT_DEATH([[NSClassFromString(@"DAVEnumerator") alloc] init], "without its container");
  EXPECT_DEATH([[NSClassFromString(@"FileProviderExtension") alloc] init], "without its domain");
}

}  // namespace
