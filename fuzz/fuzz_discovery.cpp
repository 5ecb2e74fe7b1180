// Discovery over any answers the host's video devices give: links in
// /dev/v4l/by-path and by-id with any names and targets, nodes with any
// capabilities, card name, first format and frame sizes, and cameras whose
// EEPROM holds any serial number. The list handed out holds terminated
// texts, and no more cameras than there are links.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fake_camera.h"
#include "fuzz_check.h"
#include "fuzz_input.h"
#include "ksAsicSdk/source/deviceDetectHelper.h"
#include "ks_asic_iic_ctrl/source/ks_iic_eeprom_store.h"

namespace {

constexpr uint32_t kCapture = 0x00000001;     // V4L2_CAP_VIDEO_CAPTURE
constexpr uint32_t kDeviceCaps = 0x80000000;  // V4L2_CAP_DEVICE_CAPS

std::string any_name(fuzzing::Input& in, const char* usual) {
    // Mostly names like the real ones, now and then anything at all.
    if ((in.u8() & 7) != 0) return std::string(usual) + std::to_string(in.u8() % 4);
    return in.text(in.u8() % 2 == 0 ? 40 : 400);
}

template <size_t N>
bool terminated(const char (&text)[N]) {
    return std::memchr(text, '\0', N) != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::Input in(data, size);
    fuzzing::FakeCamera camera;
    in.bytes(camera.eeprom.data() + KS_EEPROM_SN_ADDR, KS_SN_MAX_LENGTH + 2);

    const uint32_t links = in.below(5);
    std::vector<std::string> by_path, by_id;
    for (uint32_t i = 0; i < links; ++i) {
        const std::string link = any_name(in, "pci-0000:00:14.0-usb-0:");
        const std::string target = any_name(in, "/dev/video");
        by_path.push_back(link);
        if (in.u8() & 1) by_id.push_back("usb-cam-" + std::to_string(i));
        camera.add_link("/dev/v4l/by-path/" + link, target);
        if (!by_id.empty() && by_id.back() == "usb-cam-" + std::to_string(i))
            camera.add_link("/dev/v4l/by-id/" + by_id.back(), target);

        fuzzing::FakeNode node;
        node.path = target;
        const uint8_t how = in.u8();
        node.querycap_fails = (how & 0x0F) == 0;
        static const char* const kCards[] = {"KS Stereo Camera", "kestra depth", "USB Webcam",
                                             "ks"};
        if (how & 0x10) {
            in.bytes(node.card, sizeof node.card);
        } else {
            const char* card = kCards[how >> 6];
            std::memcpy(node.card, card, std::strlen(card));
        }
        node.capabilities = (how & 0x20) ? in.u32() : kCapture | kDeviceCaps;
        node.device_caps = (how & 0x20) ? in.u32() : kCapture;
        node.enum_fmt_fails = (in.u8() & 7) == 0;
        node.pixelformat = in.u32();
        in.bytes(node.description, sizeof node.description);
        const uint32_t sizes = in.below(8);
        for (uint32_t k = 0; k < sizes; ++k) {
            const uint8_t kind = in.u8();
            if (kind & 1) {
                node.sizes.push_back({1, 1280, 720});
            } else {
                node.sizes.push_back({1u + kind % 3u, in.u16(), in.u16()});
            }
        }
        node.sizes_fail = (in.u8() & 3) != 0;
        // Discovery opens the link; the serial number is read through the node.
        camera.add_node(node);
        node.path = "/dev/v4l/by-path/" + link;
        camera.add_node(node);
    }
    camera.add_dir("/dev/v4l/by-path", by_path);
    if (!by_id.empty() || (in.u8() & 1)) camera.add_dir("/dev/v4l/by-id", by_id);

    _ks_camera_list* list = nullptr;
    ksQueryCameraList_impl(&list);
    FUZZ_CHECK(list != nullptr);
    FUZZ_CHECK(list->count <= links);
    for (uint32_t i = 0; i < list->count; ++i) {
        const _ks_camera_info_s& c = list->cameras[i];
        FUZZ_CHECK(terminated(c.video_dev) && terminated(c.camera_sn));
        FUZZ_CHECK(terminated(c.usb_path_name) && terminated(c.v4l_id_name));
    }
    ksShowCameraList(list);
    const std::string sn = in.text(KS_SN_MAX_LENGTH);
    getCameraDevBySn(list, sn.c_str());
    getCameraUsbPathNameBySn(list, sn.c_str());
    ksReleaseCameraList_impl(&list);
    FUZZ_CHECK(list == nullptr);
    return 0;
}
