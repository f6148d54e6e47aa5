// A user's preferences, driven by the library's description of them.
#ifndef TSMAIL_TOOLS_WORK_PREFERENCES_H
#define TSMAIL_TOOLS_WORK_PREFERENCES_H

#include <tessaly/MailUserId.h>
#include <tessaly/userpref.h>

#include <span>
#include <string>
#include <string_view>

#include "tools/cli/descriptors.h"
#include "tools/cli/output.h"

namespace Tessaly::tool {

// All preferences in the order of the file.
std::span<const pref_property> all_preferences();
// The one with this key; a Failure with code kExitData for an unknown key.
const pref_property& preference_named(std::string_view key);

// A preference's JSON value as people write it.
std::string preference_text(const Json& value);

class Preferences {
  public:
    // The defaults, with the system's time zone.
    Preferences();
    // The defaults, overridden by the user's file. A Failure if the file exists but cannot be read.
    static Preferences of(const TSMailUserId& id);

    // The value as a number, true or false, or a text.
    Json value(const pref_property& property) const;
    // The value as people write it.
    std::string text(const pref_property& property) const;

    // Sets a preference. If the file would not return the value unchanged, a Failure with code
    // kExitData names the key and the allowed values.
    void set(const pref_property& property, std::string_view text);
    void set(const pref_property& property, const Json& value);
    void reset(const pref_property& property);

    // A Failure as that of set() if a value could not be read back from the file.
    void check() const;
    // The same, and writes the user's file. A Failure if that fails.
    void store(const TSMailUserId& id) const;

  private:
    bool take(const pref_property& property, std::string_view text);
    bool survives(const pref_property& property) const;

    user_pref record_;
};

// Prevents other tsmail processes, also on other machines, from changing the same preferences while
// this one changes them.
class PreferencesLock {
  public:
    // Makes the preference directory if it is missing.
    explicit PreferencesLock(const TSMailUserId& id);

  private:
    Fd lock_;
};

}  // namespace Tessaly::tool

#endif
