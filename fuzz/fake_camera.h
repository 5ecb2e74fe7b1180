// A camera made of fuzz input, installed at the platform seam: video nodes
// whose V4L2 answers (capabilities, card name, first format, frame sizes)
// the harness sets, directories and links for discovery, a clock that only
// moves when the library waits, and the USB controller behind the extension
// unit. The controller either answers like a well-behaved device from its
// own EEPROM, registers and flash, or lets the input decide every reply
// block, from raw bytes to well-framed answers with hostile contents.
//
// Written from the device's side: it parses the request blocks as the wire
// format defines them and never calls library code.
#ifndef KS_FUZZ_FAKE_CAMERA_H
#define KS_FUZZ_FAKE_CAMERA_H

#include <dirent.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace fuzzing {

// What a video node answers; every field may be anything.
struct FakeNode {
    std::string path;
    bool querycap_fails = false;
    uint8_t card[32] = {};
    uint32_t capabilities = 0;
    uint32_t device_caps = 0;
    bool enum_fmt_fails = false;
    uint32_t pixelformat = 0;
    uint8_t description[32] = {};
    struct Size {
        uint32_t type;  // V4L2_FRMSIZE_TYPE_*
        uint32_t width, height;
    };
    std::vector<Size> sizes;  // answers of VIDIOC_ENUM_FRAMESIZES by index
    bool sizes_fail = false;  // past the list: failure (true) or the last again
};

class FakeCamera {
  public:
    // replies: null for the well-behaved controller, else the input that
    // decides every reply block (an exhausted input makes queries fail).
    explicit FakeCamera(Input* replies = nullptr);
    ~FakeCamera();
    FakeCamera(const FakeCamera&) = delete;
    FakeCamera& operator=(const FakeCamera&) = delete;

    // The node the control harnesses open: /dev/video0.
    static constexpr const char* kNode = "/dev/video0";

    void add_node(const FakeNode& node) { nodes_.push_back(node); }
    // What scandir lists in dir (names only).
    void add_dir(const std::string& dir, const std::vector<std::string>& names) {
        dirs_[dir] = names;
    }
    // What realpath makes of path.
    void add_link(const std::string& path, const std::string& target) { links_[path] = target; }

    // The well-behaved controller's memories.
    std::array<uint8_t, 16384> eeprom;
    uint8_t status = 3;                     // ASIC running, EPR loaded
    std::map<uint32_t, uint8_t> registers;  // (device << 16) | register; absent: 0

    uint64_t now_us() const { return now_us_; }

    // Platform table entries (public for the table only).
    int open(const char* path);
    int close(int fd);
    int ioctl(int fd, unsigned long request, void* arg);
    int scandir(const char* dir, struct dirent*** list);
    char* realpath(const char* path, char* resolved);
    void wait_us(uint64_t us) { now_us_ += us; }

  private:
    struct Reply {
        bool refused = true;
        std::vector<uint8_t> data;
    };
    int control(int fd, void* query);
    void take_request(const uint8_t* block);
    Reply answer(uint32_t command, uint32_t parameter, const uint8_t* data, uint32_t length);
    void frame_reply(uint8_t* block, uint32_t command_word, const uint8_t* data, uint32_t length,
                     uint32_t length_word);
    const FakeNode* node_of(int fd) const;

    Input* replies_;
    std::vector<FakeNode> nodes_;
    std::map<std::string, std::vector<std::string>> dirs_;
    std::map<std::string, std::string> links_;
    std::map<uint32_t, std::array<uint8_t, 256>> flash_;  // pages written; others read 0xFF
    uint64_t now_us_ = 1000000;
    uint32_t exchanges_ = 0;
    // The request in hand and the well-behaved answer to it.
    uint32_t req_id_ = 0, req_command_ = 0, req_parameter_ = 0;
    Reply pending_;
    bool have_request_ = false;
};

}  // namespace fuzzing

#endif
