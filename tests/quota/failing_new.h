// A lack of memory on demand: the program's own operator new, which the library also calls.
#ifndef TSMAIL_TESTS_QUOTA_FAILING_NEW_H
#define TSMAIL_TESTS_QUOTA_FAILING_NEW_H

namespace quota_test {

// While it exists, the n-th allocation (from 0) of this thread and all later ones fail.
class FailingNew {
  public:
    explicit FailingNew(int n);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;
    // Whether an allocation has failed.
    bool fired() const;
};

}  // namespace quota_test

#endif
