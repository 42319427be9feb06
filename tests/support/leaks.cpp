#include "leaks.h"

#include <dirent.h>
#include <malloc.h>

#include "lib_test.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

constexpr int WALKS = 200;
constexpr size_t SMALLEST = 32; // bytes that the smallest block takes

static int open_descriptors()
{
    int num = 0;
    DIR *stream = opendir("/proc/self/fd");
    while (readdir(stream) != nullptr)
        num++;
    (void)closedir(stream);
    return num;
}

// Mutexes, conditions and attributes that were made and not destroyed.
static int undestroyed()
{
    static const char *const pairs[][2] = {{"pthread_mutex_init", "pthread_mutex_destroy"},
                                           {"pthread_cond_init", "pthread_cond_destroy"},
                                           {"pthread_condattr_init", "pthread_condattr_destroy"}};
    int num = 0;
    for (const auto &pair : pairs) {
        int left = fault::count(pair[0]) - fault::failed(pair[0]) - fault::count(pair[1]);
        EXPECT_EQ(left, 0) << pair[0];
        num += left == 0 ? 0 : 1;
    }
    return num;
}

static void forget()
{
    (void)fake_tipc::take_sent();
    (void)fake_tipc::take_subscriptions();
    (void)take_seen();
    fault::reset();
}

static size_t allocated()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 0; // their own allocators do not say
#else
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

// Whether blocks are left that nothing points at.
static bool lost()
{
#if defined(__SANITIZE_ADDRESS__)
    fault::arm(false); // with the threads stopped nothing may be counted
    bool found = __lsan_do_recoverable_leak_check() != 0;
    fault::arm(true);
    return found;
#else
    return false;
#endif
}

void expect_nothing_left(const std::function<void()> &path, size_t own)
{
    auto walk = [&] {
        forget();
        path();
        return undestroyed() == 0 && !testing::Test::HasFailure();
    };
    for (int i = 0; i < 40; i++) { // until everything that is kept is there
        if (!walk())
            return;
    }
    forget();
    int descriptors = open_descriptors();
    // The allocator itself keeps a little more now and then; what is left of each walk shows every time.
    size_t most = WALKS * (own + SMALLEST / 2);
    size_t more = most;
    for (int i = 0; i < 5 && more >= most; i++) {
        size_t before = allocated();
        for (int k = 0; k < WALKS; k++)
            (void)walk();
        forget();
        size_t after = allocated();
        more = after > before ? after - before : 0;
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_LT(more, most) << "of memory with every " << WALKS << " walks";
    EXPECT_FALSE(lost()) << "reported above";
}
