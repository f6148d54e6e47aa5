#include "fault/allocations.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstddef>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TSMAIL_UNDERLYING(name) __interceptor_##name
#define TSMAIL_OWN_OPERATOR_NEW 1  // a sanitizer's operator new does not call malloc
#else
#define TSMAIL_UNDERLYING(name) __libc_##name
#endif

#pragma GCC visibility push(default)

extern "C" {
void* TSMAIL_UNDERLYING(malloc)(std::size_t size);
void* TSMAIL_UNDERLYING(calloc)(std::size_t count, std::size_t size);
void* TSMAIL_UNDERLYING(realloc)(void* old, std::size_t size);
}

namespace {

// An allocator can only have global state. One thread at a time uses it.
bool counting = false;
long asked = 0, first_failing = 0, last_failing = 0;

bool refuse() {
    if (!counting) return false;
    ++asked;
    if (asked < first_failing || asked > last_failing) return false;
    errno = ENOMEM;
    return true;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) { return refuse() ? nullptr : TSMAIL_UNDERLYING(malloc)(size); }

void* calloc(std::size_t count, std::size_t size) {
    return refuse() ? nullptr : TSMAIL_UNDERLYING(calloc)(count, size);
}

void* realloc(void* old, std::size_t size) {
    return refuse() ? nullptr : TSMAIL_UNDERLYING(realloc)(old, size);
}

}  // extern "C"

#ifdef TSMAIL_OWN_OPERATOR_NEW
namespace {

// The sanitizer's operator, which knows what its delete gets.
void* sanitizers_new(const char* symbol, std::size_t size) {
    return reinterpret_cast<void* (*)(std::size_t)>(::dlsym(RTLD_NEXT, symbol))(size);
}

}  // namespace

void* operator new(std::size_t size) {
    return refuse() ? throw std::bad_alloc() : sanitizers_new("_Znwm", size);
}
void* operator new[](std::size_t size) {
    return refuse() ? throw std::bad_alloc() : sanitizers_new("_Znam", size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return refuse() ? nullptr : sanitizers_new("_Znwm", size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return refuse() ? nullptr : sanitizers_new("_Znam", size);
}
#endif

#pragma GCC visibility pop

namespace fault {

void begin_allocations(long first, long calls) {
    asked = 0;
    first_failing = first;
    last_failing = calls == 0 ? 0 : first + (calls - 1);
    counting = true;
}

long end_allocations() {
    counting = false;
    return asked;
}

}  // namespace fault
