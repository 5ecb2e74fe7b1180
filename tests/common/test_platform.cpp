#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>

#include "common/ks_platform.h"

namespace {

int fake_open(const char*, int, mode_t) {
    return 4242;
}

}  // namespace

// Routing through an installed table is shown by every simulator test; only
// the refusal of an incomplete one is not.
TEST(PlatformSeam, InstallRoutesCallsResetRestoresAndIncompleteTablesAreRefused) {
    ks_platform_ops table = *ks_platform_default_ops();
    table.open = fake_open;
    ASSERT_EQ(0, ks_platform_install(&table));
    EXPECT_EQ(4242, ks_sys_open("/dev/video0", O_RDWR, 0));
    ks_platform_reset();
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
    const int fd = ks_sys_open("/dev/null", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, ks_sys_close(fd));

    // Every slot is a function pointer: leave out each one in turn.
    constexpr size_t kSlot = sizeof(table.open);
    static_assert(sizeof(ks_platform_ops) == 16 * kSlot, "one slot per operation");
    for (size_t i = 0; i < sizeof(ks_platform_ops) / kSlot; ++i) {
        ks_platform_ops incomplete = *ks_platform_default_ops();
        std::memset(reinterpret_cast<char*>(&incomplete) + i * kSlot, 0, kSlot);
        EXPECT_EQ(-1, ks_platform_install(&incomplete)) << "slot " << i;
    }
    EXPECT_EQ(-1, ks_platform_install(nullptr));
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
}
