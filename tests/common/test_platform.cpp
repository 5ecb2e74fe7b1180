#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "common/ks_platform.h"

namespace {

int g_calls = 0;

int fake_usleep(useconds_t) {
    return ++g_calls, 0;
}
int fake_open(const char*, int, mode_t) {
    return ++g_calls, 4242;
}

}  // namespace

TEST(PlatformSeam, InstallRoutesCallsResetRestoresAndIncompleteTablesAreRefused) {
    g_calls = 0;
    ks_platform_ops table = *ks_platform_default_ops();
    table.usleep = fake_usleep;
    table.open = fake_open;
    ASSERT_EQ(0, ks_platform_install(&table));
    EXPECT_EQ(&table, ks_platform_ops_current());
    EXPECT_EQ(4242, ks_sys_open("/dev/video0", O_RDWR, 0));
    ks_sys_usleep(1000000);
    EXPECT_EQ(2, g_calls);

    ks_platform_reset();
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
    int fd = ks_sys_open("/dev/null", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, ks_sys_close(fd));
    EXPECT_EQ(2, g_calls);

    table.select = nullptr;
    EXPECT_EQ(-1, ks_platform_install(&table));
    EXPECT_EQ(-1, ks_platform_install(nullptr));
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
}
