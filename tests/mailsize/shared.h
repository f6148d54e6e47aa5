// Shared<T> - a T, made of atomics, in memory that this process and its children see.
#ifndef TSMAIL_TESTS_MAILSIZE_SHARED_H
#define TSMAIL_TESTS_MAILSIZE_SHARED_H

#include <sys/mman.h>

#include <new>

template <class T>
class Shared {
  public:
    Shared() {
        void* const memory =
            ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        value_ = new (memory) T{};
    }
    ~Shared() { ::munmap(value_, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    T* operator->() const { return value_; }

  private:
    T* value_;
};

#endif
