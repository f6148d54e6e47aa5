#include "mailsize/key_set.h"

#include <utility>

namespace Tessaly::mailsize {

namespace {
constexpr std::size_t kFirstSlots = 256;
}

void KeySet::insert(std::uint64_t key) {
    if (used_ * 2 >= slots_.size()) make_room();
    std::uint64_t& slot = slots_[slot_of(key)];
    if (slot == 0) ++used_;
    slot = key;
}

bool KeySet::contains(std::uint64_t key) const {
    return !slots_.empty() && slots_[slot_of(key)] == key;
}

// The key's slot, or the free one where it belongs.
std::size_t KeySet::slot_of(std::uint64_t key) const {
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = key & mask;
    while (slots_[slot] != 0 && slots_[slot] != key) slot = (slot + 1) & mask;
    return slot;
}

void KeySet::make_room() {
    const std::vector<std::uint64_t> old = std::exchange(
        slots_, std::vector<std::uint64_t>(slots_.empty() ? kFirstSlots : slots_.size() * 2));
    for (const std::uint64_t key : old) {
        if (key != 0) slots_[slot_of(key)] = key;
    }
}

}  // namespace Tessaly::mailsize
