#include "quota/failing_new.h"

#include <cstdlib>
#include <new>

namespace {
constexpr int kNever = -1;
thread_local int left = kNever;
thread_local bool failed = false;
}  // namespace

void* operator new(std::size_t size) {
    if (left == 0) {
        failed = true;
        throw std::bad_alloc();
    }
    if (left > 0) --left;
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
// A sanitizer's own operator would not call the one above.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace quota_test {

FailingNew::FailingNew(int n) {
    failed = false;
    left = n;
}
FailingNew::~FailingNew() { left = kNever; }
bool FailingNew::fired() const { return failed; }

}  // namespace quota_test
