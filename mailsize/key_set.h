// KeySet - a set of hash values.
#ifndef TSMAIL_MAILSIZE_KEY_SET_H
#define TSMAIL_MAILSIZE_KEY_SET_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tessaly::mailsize {

// Open addressing in one vector takes some 20 bytes a key; a std::unordered_set takes 40 and an
// allocation. Keys must be spread evenly and must not be 0.
class KeySet {
  public:
    // Throws std::bad_alloc.
    void insert(std::uint64_t key);
    bool contains(std::uint64_t key) const;

  private:
    std::size_t slot_of(std::uint64_t key) const;
    void make_room();

    std::vector<std::uint64_t> slots_;  // 0 is free; a power of two, at most half of them taken
    std::size_t used_ = 0;
};

}  // namespace Tessaly::mailsize

#endif
