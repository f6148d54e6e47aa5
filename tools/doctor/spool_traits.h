// What the store relies on from the file system below the spool: each trait is tried out on files
// of its own.
#ifndef TSMAIL_TOOLS_DOCTOR_SPOOL_TRAITS_H
#define TSMAIL_TOOLS_DOCTOR_SPOOL_TRAITS_H

#include <functional>
#include <span>
#include <string>

#include "tools/cli/descriptors.h"

namespace Tessaly::tool {

// How a trait turned out. `adapts`: the file system lacks it, and the store takes another way.
enum class Standing { holds, adapts, fails };

struct Outcome {
    Standing standing;
    std::string detail;
};

struct Trait {
    const char* name;
    const char* why;     // what the store needs it for
    const char* advice;  // what to set if it fails
    // Tries it in an empty directory and may leave files there. A Failure if it cannot be tried.
    Outcome (*look)(int directory);
};
std::span<const Trait> spool_traits();

// A hidden directory for tries. It is removed with everything in it at the end.
class TryDirectory {
  public:
    // Makes it in a directory. A Failure if that is not possible.
    TryDirectory(const std::string& parent, std::string name);
    TryDirectory(const TryDirectory&) = delete;
    TryDirectory& operator=(const TryDirectory&) = delete;
    ~TryDirectory();

    int fd() const { return fd_.get(); }

  private:
    Fd parent_;
    std::string name_;
    Fd fd_;
};

}  // namespace Tessaly::tool

#endif
