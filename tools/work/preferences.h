// A user's preferences, driven by the library's own description of them.
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
    // What the user's file says, over the defaults. A Failure if there is a file that cannot be
    // read.
    static Preferences of(const TSMailUserId& id);

    // A number, true or false, or a text.
    Json value(const pref_property& property) const;
    // The same as people write it.
    std::string text(const pref_property& property) const;

    // Sets a preference. A Failure with code kExitData, which names the key and what is allowed,
    // for a value that would not come back from the file as it is.
    void set(const pref_property& property, std::string_view text);
    void set(const pref_property& property, const Json& value);
    void reset(const pref_property& property);

    // Writes the user's file. A Failure if that failed.
    void store(const TSMailUserId& id) const;

  private:
    bool take(const pref_property& property, std::string_view text);
    bool survives(const pref_property& property) const;

    user_pref record_;
};

// Keeps other tsmail processes from changing the same preferences between reading and storing them.
class PreferencesLock {
  public:
    // Makes the preference directory if it is missing.
    explicit PreferencesLock(const TSMailUserId& id);

  private:
    Fd directory_;
};

}  // namespace Tessaly::tool

#endif
