#include "platform/apple/foundation_bridge.h"
#include "platform/platform.h"

// On Apple platforms a preferences domain is a persistent domain of the standard user defaults;
// the system keeps it in Library/Preferences, so the folder is not used here.
namespace corvelstow::platform {

PreferencesStore::PreferencesStore(fs::path preferencesFolder, int folder)
    : folder_(std::move(preferencesFolder)), folderFd_(folder) {}

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

// The defaults take a domain into memory at once; synchronize is what writes it out.
bool PreferencesStore::setDomain(const std::string& name, const PlistDictionary& values) {
  return apple::catchingAll(false, [&name, &values] {
    NSString* domain = apple::nsStringFrom(name);
    NSDictionary* dictionary = apple::foundationObjectFrom(PlistValue{values});
    if (domain == nil || dictionary == nil) return false;
    [NSUserDefaults.standardUserDefaults setPersistentDomain:dictionary forName:domain];
    return true;
  });
}

bool PreferencesStore::removeDomain(const std::string& name) {
  return apple::catchingAll(false, [&name] {
    NSString* domain = apple::nsStringFrom(name);
    if (domain == nil) return false;
    [NSUserDefaults.standardUserDefaults removePersistentDomainForName:domain];
    return true;
  });
}

// The preferences daemon writes asynchronously; both calls wait until it has written, so that a
// copy of a domain is given up only once the store holds the domain on storage.
bool PreferencesStore::synchronize() {
  return apple::catchingAll(false, [] {
    BOOL defaults = [NSUserDefaults.standardUserDefaults synchronize];
    Boolean application = CFPreferencesAppSynchronize(kCFPreferencesCurrentApplication);
    return defaults && application;
  });
}

}  // namespace corvelstow::platform
