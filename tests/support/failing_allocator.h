// An allocator that runs out on request and knows what it has given out: for "every allocation fails in turn".
//
//     FailingAllocator::failAt(3);                    // the third allocation from now gives null, later ones succeed
//     tree = zelRBTreeCreate("t", 0, 4, FailingAllocator::allocate, FailingAllocator::release, compare);
//     ...
//     EXPECT_EQ(FailingAllocator::live(), 0);         // nothing leaked
//
// Blocks have exactly the size asked for, so that the sanitizers see each byte too many.
#pragma once

#include <cstdlib>
#include <set>

namespace zel::test {

class FailingAllocator {
public:
    static void *allocate(std::size_t bytes) {
        if (countdown_ && --countdown_ == 0) {
            failed_ = true;
            return nullptr;
        }
        void *block = std::malloc(bytes);
        if (block) blocks_.insert(block);
        return block;
    }
    // A block that is not out is the caller's fault and ends the test.
    static void release(void *block) {
        if (!block) return;
        if (!blocks_.erase(block)) std::abort();
        std::free(block);
    }
    // 0 switches failing off.
    static void failAt(unsigned nth) {
        countdown_ = nth;
        failed_ = false;
    }
    static bool hasFailed() { return failed_; }
    static int live() { return static_cast<int>(blocks_.size()); }

private:
    static inline unsigned countdown_ = 0;
    static inline bool failed_ = false;
    static inline std::set<void *> blocks_;
};

}  // namespace zel::test
