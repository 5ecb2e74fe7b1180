#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "common/ks_platform.h"

namespace {

int g_usleep_calls = 0;
int g_opened = 0;

int fake_usleep(useconds_t) {
    ++g_usleep_calls;
    return 0;
}
int fake_open(const char*, int, mode_t) {
    ++g_opened;
    return 4242;
}
int fake_gettimeofday(struct timeval* tv, void*) {
    tv->tv_sec = 77;
    tv->tv_usec = 5;
    return 0;
}

}  // namespace

TEST(PlatformSeam, InstallRoutesCallsAndResetRestoresTheCLibrary) {
    g_usleep_calls = 0;
    g_opened = 0;
    ks_platform_ops table = *ks_platform_default_ops();
    table.usleep = fake_usleep;
    table.open = fake_open;
    table.gettimeofday = fake_gettimeofday;

    ASSERT_EQ(0, ks_platform_install(&table));
    EXPECT_EQ(&table, ks_platform_ops_current());
    EXPECT_EQ(4242, ks_sys_open("/dev/video0", O_RDWR, 0));
    ks_sys_usleep(1000000);
    struct timeval tv {};
    ks_sys_gettimeofday(&tv);
    EXPECT_EQ(77, tv.tv_sec);
    EXPECT_EQ(1, g_opened);
    EXPECT_EQ(1, g_usleep_calls);

    ks_platform_reset();
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
    int fd = ks_sys_open("/dev/null", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, ks_sys_close(fd));
    EXPECT_EQ(1, g_opened);
}

TEST(PlatformSeam, IncompleteOrNullTablesAreRefused) {
    ks_platform_ops table = *ks_platform_default_ops();
    table.select = nullptr;
    EXPECT_EQ(-1, ks_platform_install(&table));
    EXPECT_EQ(-1, ks_platform_install(nullptr));
    EXPECT_EQ(ks_platform_default_ops(), ks_platform_ops_current());
}
