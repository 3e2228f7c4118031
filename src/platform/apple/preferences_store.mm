#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

// On Apple platforms a preferences domain is a persistent domain of the standard user defaults;
// the system keeps it in Library/Preferences, so the folder is not used here.
namespace corvelstow::platform {

PreferencesStore::PreferencesStore(fs::path preferencesFolder)
    : folder_(std::move(preferencesFolder)) {}

std::optional<PlistDictionary> PreferencesStore::domain(const std::string& name) const {
  return apple::catchingAll(std::optional<PlistDictionary>(),
                            [&name]() -> std::optional<PlistDictionary> {
    NSString* domain = apple::nsStringFrom(name);
    if (domain == nil) return std::nullopt;
    NSDictionary* values = [NSUserDefaults.standardUserDefaults persistentDomainForName:domain];
    if (values == nil) return std::nullopt;
    return apple::plistDictionaryFrom(values);
  });
}

void PreferencesStore::setDomain(const std::string& name, const PlistDictionary& values) {
  apple::catchingAll([&name, &values] {
    NSString* domain = apple::nsStringFrom(name);
    NSDictionary* dictionary = apple::foundationObjectFrom(PlistValue{values});
    if (domain != nil && dictionary != nil) {
      [NSUserDefaults.standardUserDefaults setPersistentDomain:dictionary forName:domain];
    }
  });
}

void PreferencesStore::removeDomain(const std::string& name) {
  apple::catchingAll([&name] {
    if (NSString* domain = apple::nsStringFrom(name)) {
      [NSUserDefaults.standardUserDefaults removePersistentDomainForName:domain];
    }
  });
}

void PreferencesStore::synchronize() {
  apple::catchingAll([] {
    [NSUserDefaults.standardUserDefaults synchronize];
    CFPreferencesAppSynchronize(kCFPreferencesCurrentApplication);
  });
}

}  // namespace corvelstow::platform
