// The letter case of the process's locale, as strcasecmp sees it.
#ifndef TSMAIL_MAILLIST_FOLD_H
#define TSMAIL_MAILLIST_FOLD_H

#include <ctype.h>

#include <cstddef>
#include <cstdint>

namespace Tessaly::maillist {

// Folds bytes as tolower does. It holds tolower's table, so that the locale is asked once for many
// letters.
class Fold {
  public:
    unsigned char operator()(char c) const {
        return static_cast<unsigned char>(table_[static_cast<unsigned char>(c)]);
    }

    bool equal(const char* a, const char* b, std::size_t length) const {
        for (std::size_t i = 0; i < length; ++i) {
            if ((*this)(a[i]) != (*this)(b[i])) return false;
        }
        return true;
    }

  private:
    const std::int32_t* table_ = *::__ctype_tolower_loc();
};

}  // namespace Tessaly::maillist

#endif
