// Two processes on one camera. Each control exchange locks the camera's
// video node, so an exchange of one process waits while another process
// holds that node, never for another node, and the lock goes with a process
// that dies holding it. A second process cannot stream from a node that the
// first streams from, and its control operations still work.
//
// Each process runs its own virtual world; the worlds share their node locks
// and stream ownership through one lock directory, as processes on one host
// share the kernel's.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "common/ks_test_helpers.h"
#include "session_fixture.h"

extern char** environ;

namespace {

constexpr int64_t kGenerousUs = 300000000;

// The peer process, with pipes to its standard input and output.
class Peer {
  public:
    Peer(const std::string& dir, const char* mode) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        char* const argv[] = {const_cast<char*>(KS_LOCK_PEER), const_cast<char*>(dir.c_str()),
                              const_cast<char*>(mode), nullptr};
        if (posix_spawn(&pid_, KS_LOCK_PEER, &actions, nullptr, argv, environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        to_ = in[1];
        from_ = out[0];
    }
    ~Peer() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            wait();
        }
        if (to_ >= 0) close(to_);
        if (from_ >= 0) close(from_);
    }
    // The peer's first line (empty when it ended first).
    std::string line() {
        std::string text;
        char c = 0;
        while (read(from_, &c, 1) == 1 && c != '\n') text += c;
        return text;
    }
    void end_input() {
        close(to_);
        to_ = -1;
    }
    void kill_it() { kill(pid_, SIGKILL); }
    // The exit status as waitpid reports it.
    int wait() {
        int status = -1;
        if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) pid_ = -1;
        return status;
    }

  private:
    pid_t pid_ = -1;
    int to_ = -1, from_ = -1;
};

class TwoProcesses : public sessiontest::SessionTest {
  protected:
    double warp() const override { return 4.0; }
    void SetUp() override {
        SessionTest::SetUp();
        ASSERT_EQ(0, kssim_world_set_lock_dir(world_, dir_.path().c_str()));
        for (kssim_camera** c : {&first_, &second_}) {
            *c = add_camera([](kssim_camera_config& cfg) {
                cfg.initial_size = {640, 480};
                cfg.fps = 15;
            });
            ASSERT_NE(nullptr, *c);
        }
        ASSERT_STREQ("/dev/video0", node(first_));
        ASSERT_STREQ("/dev/video2", node(second_));
    }
    // Whether another descriptor holds the node's lock: a probe that would
    // not wait.
    static bool held_elsewhere(const char* path) {
        const int fd = ks_sys_open(path, O_RDWR, 0);
        if (fd < 0) return false;
        const bool held = ks_sys_flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        if (!held) ks_sys_flock(fd, LOCK_UN);
        ks_sys_close(fd);
        return held;
    }
    static uint64_t requests(kssim_camera* camera) {
        kssim_control_stats stats{};
        kssim_camera_control_stats(camera, &stats);
        return stats.requests;
    }

    ks_test::TempDir dir_;
    kssim_camera* first_ = nullptr;
    kssim_camera* second_ = nullptr;
};

}  // namespace

TEST_F(TwoProcesses, AnExchangeWaitsForTheProcessHoldingItsNodeOnlyAndNotBeyondItsDeath) {
    KSCameraAbstract* first = nullptr;
    KSCameraAbstract* second = nullptr;
    ASSERT_EQ(0, ksOpenUVCCameraByPathCallInitCamCtrl(node(first_), &first));
    ASSERT_EQ(0, ksOpenUVCCameraByPathCallInitCamCtrl(node(second_), &second));

    Peer peer(dir_.path(), "hold");
    ASSERT_EQ("holding", peer.line());
    // The peer's EEPROM update holds the first node from its first exchange on.
    sessiontest::wait_for([&] { return held_elsewhere(node(first_)); }, kGenerousUs);
    ASSERT_TRUE(held_elsewhere(node(first_)));

    // The other node is free: its exchange goes through at once, while the
    // peer still holds the first.
    unsigned short value = 0;
    EXPECT_EQ(0, ksReadNuvexRegisterValue(second, 0x1F, &value));
    EXPECT_EQ(0x34, value);
    EXPECT_TRUE(held_elsewhere(node(first_)));

    // An exchange on the first node waits: no request reaches the camera for
    // a second of camera time, however long the exchange would take.
    const uint64_t before = requests(first_);
    std::atomic<bool> done{false};
    std::atomic<int> result{-99};
    unsigned short first_value = 0;
    std::thread waiting([&] {
        result = ksReadNuvexRegisterValue(first, 0x1F, &first_value);
        done = true;
    });
    EXPECT_FALSE(sessiontest::wait_for([&] { return done.load(); }, 1000000));
    EXPECT_EQ(before, requests(first_));
    EXPECT_TRUE(held_elsewhere(node(first_)));

    // The holder dies: the kernel drops its lock and the exchange runs.
    peer.kill_it();
    const int status = peer.wait();
    EXPECT_TRUE(WIFSIGNALED(status));
    sessiontest::wait_for([&] { return done.load(); }, kGenerousUs);
    waiting.join();
    EXPECT_EQ(0, result.load());
    EXPECT_EQ(0x34, first_value);
    EXPECT_GT(requests(first_), before);
    EXPECT_FALSE(held_elsewhere(node(first_)));
    EXPECT_EQ(0, ksCloseCamera(&first));
    EXPECT_EQ(0, ksCloseCamera(&second));
}

TEST_F(TwoProcesses, ASecondProcessCannotStreamFromABusyNodeButControlsTheCamera) {
    Peer peer(dir_.path(), "stream");
    ASSERT_EQ("streaming", peer.line());

    {
        ks_test::FdCapture out(1);
        KSCameraAbstract* refused = nullptr;
        EXPECT_EQ(-2, ksOpenUVCCameraByPath(node(first_), &refused));
        EXPECT_EQ(nullptr, refused);
    }
    KSCameraAbstract* control = nullptr;
    ASSERT_EQ(0, ksOpenUVCCameraByPathCallInitCamCtrl(node(first_), &control));
    char sn[32] = {};
    EXPECT_EQ(0, ksGetCameraSN(control, sn));
    EXPECT_STREQ("KS0000000001", sn);
    unsigned short value = 0;
    EXPECT_EQ(0, ksReadNuvexRegisterValue(control, 0x1F, &value));
    EXPECT_EQ(0x34, value);
    EXPECT_EQ(0, ksCloseCamera(&control));

    // Once the peer closes its camera, the node streams here.
    peer.end_input();
    const int status = peer.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ASSERT_EQ(0, ksOpenUVCCameraByPath(node(first_), &handle_));
    EXPECT_EQ(2, take_frames(handle_, 2));
}
