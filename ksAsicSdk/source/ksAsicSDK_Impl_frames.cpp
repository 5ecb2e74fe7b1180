// Session frame access: source frames from the capture thread's ring, the
// ASIC's output channels, host images cut out of a frame, the frame's
// timestamp and channel, the stereo constants and the colour table.
#include <cstdint>
#include <cstdio>

#include "common/ks_log.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"

namespace {

// Markers of a loaded metadata line (words M0 and M1).
constexpr unsigned short kMetaMarker0 = 0xACE;
constexpr unsigned short kMetaMarker1 = 0xBED;
constexpr unsigned char kFrameMarkerByte = 0xCE;
// Words of the metadata line read here.
constexpr int kTimestampWord = 26;
constexpr int kChannelWord = 34;
// In a source frame the low byte of M34 follows the frame's marker byte by
// 34 pixels of 3 bytes.
constexpr int kChannelByteOffset = 102;
// The marker byte may stand at any of the first three bytes.
constexpr int kMarkerSearchBytes = 3;

// Channel codes of the working-mode register and the metadata line.
enum : unsigned {
    kCodeOrigin = 0x23,
    kCodeRectified = 0x76,
    kCodeOriginDisparity = 0x7E,
    kCodeRgbd = 0x7F,
};

// Result of parseImageChannelFromSrc for the origin-disparity code and for
// codes it does not know.
constexpr int kSrcChannelOriginDisparity = 10;
constexpr int kSrcChannelOther = 99;

constexpr int kInvalidMeta = -50;

constexpr int kColorEntries = 8192;

int bracketed(_struct_ks_ctrl_device* ctrl, int (*operation)(_struct_ks_ctrl_device*)) {
    ks_asic_control_prep(ctrl);
    const int r = operation(ctrl);
    ks_asic_control_post(ctrl);
    return r;
}

// t(x) of the colour table: the product truncated toward zero.
inline int t(int j, double step) {
    return static_cast<int>(j * step);
}

inline void put_rgb(unsigned char* table, int entry, int b0, int b1, int b2) {
    unsigned char* p = table + 3 * entry;
    p[0] = static_cast<unsigned char>(b0 & 0xFF);
    p[1] = static_cast<unsigned char>(b1 & 0xFF);
    p[2] = static_cast<unsigned char>(b2 & 0xFF);
}

}  // namespace

// ---- output channels ----

int _KestraStereoCamSDK_Impl::SwitchToRGBD() {
    const int r = bracketed(m_ctrl, ks_switch_rgbd_channel);
    if (r == 0) m_channel = KS_SESSION_CHANNEL_RGBD;
    return r;
}

int _KestraStereoCamSDK_Impl::SwitchToStereoOrigin() {
    const int r = bracketed(m_ctrl, ks_switch_origin_stereo_channel);
    if (r == 0) m_channel = KS_SESSION_CHANNEL_ORIGIN;
    return r;
}

int _KestraStereoCamSDK_Impl::SwitchToStereoRectified() {
    const int r = bracketed(m_ctrl, ks_switch_rectified_stereo_channel);
    if (r == 0) m_channel = KS_SESSION_CHANNEL_RECTIFIED;
    return r;
}

int _KestraStereoCamSDK_Impl::SwitchToOriginDisparity() {
    const int r = bracketed(m_ctrl, ks_switch_origin_disparity_channel);
    if (r == 0) m_channel = KS_SESSION_CHANNEL_ORIGIN_DISPARITY;
    return r;
}

// The channel as the session numbers it, an unknown register value as it
// is, or -1 when the register cannot be read.
int _KestraStereoCamSDK_Impl::getChannel() {
    uint16_t mode = 0;
    ks_asic_control_prep(m_ctrl);
    const int r = ks_get_camera_working_mode(m_ctrl, &mode);
    ks_asic_control_post(m_ctrl);
    if (r != 0) return -1;
    KS_LOG_INFO(KS_SDK_IMPL_MODULE, "Read Channel Val: %02x", mode);
    switch (mode) {
        case kCodeOrigin:
            m_channel = KS_SESSION_CHANNEL_ORIGIN;
            break;
        case kCodeRectified:
            m_channel = KS_SESSION_CHANNEL_RECTIFIED;
            break;
        case kCodeRgbd:
            m_channel = KS_SESSION_CHANNEL_RGBD;
            break;
        case kCodeOriginDisparity:
            m_channel = KS_SESSION_CHANNEL_ORIGIN_DISPARITY;
            break;
        default:
            printf("Unhandled condition 0x%02x\n", mode);
            return mode;
    }
    return m_channel;
}

// ---- source frames ----

int _KestraStereoCamSDK_Impl::getCurrenFrame(unsigned int* id, unsigned char** frame) {
    if (m_driver == nullptr) return -1;
    return ksY4L2GetNextSourceData(frame, id, m_driver);
}

int _KestraStereoCamSDK_Impl::getSafeCurrentFrame(unsigned int* id, unsigned char** frame) {
    if (m_driver == nullptr) return -1;
    return ksY4L2GetNextSafeSourceData(frame, id, m_driver);
}

// ---- host images ----

// The parsers write as many bytes as the stream's frame size gives: they may
// only run into buffers allocated for that size.
bool _KestraStereoCamSDK_Impl::_private_buffers_match_stream() const {
    if (m_driver == nullptr || m_meta == nullptr || m_buf_width == 0 || m_buf_height == 0)
        return false;
    if (m_driver->width != static_cast<int16_t>(m_buf_width) ||
        m_driver->height != static_cast<int16_t>(m_buf_height)) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Image buffers %ux%u do not fit the stream %dx%d\n",
                     m_buf_width, m_buf_height, m_driver->width, m_driver->height);
        return false;
    }
    return true;
}

int _KestraStereoCamSDK_Impl::parseToRgbdImage(unsigned char* src, unsigned char** image,
                                               unsigned short** disparity, unsigned short** meta) {
    if (src == nullptr || m_rgbd == nullptr || !_private_buffers_match_stream()) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "No image buffers to parse into\n");
        return -1;
    }
    const int r = parseRgbDFrame(src, m_driver, m_rgbd, m_meta);
    if (r != 0) return r;
    if (image != nullptr) *image = m_rgbd->image;
    if (disparity != nullptr) *disparity = m_rgbd->disparity;
    if (meta != nullptr) *meta = m_meta;
    return 0;
}

int _KestraStereoCamSDK_Impl::parseToRawImage(unsigned char* src, unsigned short** left,
                                              unsigned short** right, unsigned short** meta) {
    if (src == nullptr || m_raw == nullptr || !_private_buffers_match_stream()) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "No image buffers to parse into\n");
        return -1;
    }
    const int r = parseRawFrame(src, m_driver, m_raw, m_meta);
    if (r != 0) return r;
    if (left != nullptr) *left = static_cast<unsigned short*>(m_raw->first);
    if (right != nullptr) *right = static_cast<unsigned short*>(m_raw->second);
    if (meta != nullptr) *meta = m_meta;
    return 0;
}

// Always 0: a frame that cannot be parsed leaves the outputs as they were.
int _KestraStereoCamSDK_Impl::parseToRectifiedImage(unsigned char* src, unsigned char** left,
                                                    unsigned char** right, unsigned short** meta) {
    if (src == nullptr || m_raw == nullptr || !_private_buffers_match_stream()) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "No image buffers to parse into\n");
        return 0;
    }
    if (parseRectifiedFrame(src, m_driver, m_raw, m_meta) != 0) return 0;
    if (left != nullptr) *left = static_cast<unsigned char*>(m_raw->first);
    if (right != nullptr) *right = static_cast<unsigned char*>(m_raw->second);
    if (meta != nullptr) *meta = m_meta;
    return 0;
}

int _KestraStereoCamSDK_Impl::GetNextFrame(unsigned int* id, unsigned char** image,
                                           unsigned short** disparity) {
    unsigned char* frame = nullptr;
    const int r = getCurrenFrame(id, &frame);
    if (r != 0) return r;
    unsigned short* meta = nullptr;
    return parseToRgbdImage(frame, image, disparity, &meta);
}

int _KestraStereoCamSDK_Impl::GetNextFrame(unsigned int* id, unsigned char** image,
                                           unsigned short** disparity, unsigned long* timestamp) {
    const int r = GetNextFrame(id, image, disparity);
    if (r != 0) return r;
    return frameInfoProcess(m_meta, timestamp);
}

int _KestraStereoCamSDK_Impl::GetNextRawFrame(unsigned int* id, unsigned short** left,
                                              unsigned short** right) {
    unsigned char* frame = nullptr;
    const int r = getSafeCurrentFrame(id, &frame);
    if (r != 0) return r;
    unsigned short* meta = nullptr;
    return parseToRawImage(frame, left, right, &meta);
}

int _KestraStereoCamSDK_Impl::GetNextRectifiedFrame(unsigned int* id, unsigned char** left,
                                                    unsigned char** right) {
    unsigned char* frame = nullptr;
    const int r = getSafeCurrentFrame(id, &frame);
    if (r != 0) return r;
    unsigned short* meta = nullptr;
    return parseToRectifiedImage(frame, left, right, &meta);
}

// ---- metadata ----

// The timestamp's bits 12..23 come from M28 through the mask only, as the
// camera packs them. A null timestamp asks for the check alone.
int _KestraStereoCamSDK_Impl::frameInfoProcess(unsigned short* meta, unsigned long* timestamp) {
    if (meta == nullptr || meta[0] != kMetaMarker0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Invalid Meta Data input\n");
        return kInvalidMeta;
    }
    const unsigned short* m = meta + kTimestampWord;
    const uint64_t value = ((static_cast<uint64_t>(m[0]) & 0xFFF) << 36) +
                           ((static_cast<uint64_t>(m[1]) & 0xFFF) << 24) +
                           ((static_cast<uint64_t>(m[2]) << 12) & 0xFFF000) +
                           (static_cast<uint64_t>(m[3]) & 0xFFF);
    if (timestamp != nullptr) *timestamp = static_cast<unsigned long>(value);
    return 0;
}

int _KestraStereoCamSDK_Impl::parseImageChannelFromMeta(unsigned short* meta,
                                                        unsigned char* channel) {
    if (meta == nullptr || channel == nullptr || meta[0] != kMetaMarker0) {
        puts("Invalid metadata input");
        return -1;
    }
    *channel = static_cast<unsigned char>(meta[kChannelWord] & 0xFF);
    KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "channelmeta val 0x%04x\n", *channel);
    return 0;
}

// The frame is trusted to be a whole frame of the stream's size; a stream
// too narrow to carry the channel word has none to read.
int _KestraStereoCamSDK_Impl::parseImageChannelFromSrc(unsigned char* src, unsigned char* code) {
    int k = 0;
    while (src != nullptr && k < kMarkerSearchBytes && src[k] != kFrameMarkerByte) ++k;
    const bool narrow = m_driver != nullptr && m_driver->frm_size != 0 &&
                        m_driver->frm_size < static_cast<uint32_t>(k + kChannelByteOffset + 1);
    if (src == nullptr || code == nullptr || k == kMarkerSearchBytes || narrow) {
        puts("Failed to find magic code in src data");
        return -1;
    }
    *code = src[k + kChannelByteOffset];
    KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "channelmeta val 0x%04x\n", *code);
    switch (*code) {
        case kCodeOrigin:
            puts("Origin");
            return KS_SESSION_CHANNEL_ORIGIN;
        case kCodeRectified:
            puts("Rectified");
            return KS_SESSION_CHANNEL_RECTIFIED;
        case kCodeRgbd:
            puts("RGBD");
            return KS_SESSION_CHANNEL_RGBD;
        case kCodeOriginDisparity:
            return kSrcChannelOriginDisparity;
        default:
            puts("Other mode");
            return kSrcChannelOther;
    }
}

// ---- stereo constants ----

// The ASIC's values first; else those of the last parsed frame; else one
// frame is fetched for them.
int _KestraStereoCamSDK_Impl::GetCameraBxfBase(float* bxf, float* base) {
    if (bxf == nullptr || base == nullptr) return -1;
    ks_asic_control_prep(m_ctrl);
    const int r = ks_get_bxf_from_nuvex(m_ctrl, bxf, base);
    ks_asic_control_post(m_ctrl);
    if (r == 0) return 0;
    if (m_rgbd != nullptr && m_meta != nullptr && m_meta[0] == kMetaMarker0 &&
        m_meta[1] == kMetaMarker1) {
        KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "Meta Data Has Been Loaded\n");
        *bxf = m_rgbd->bf;
        *base = m_rgbd->base;
        KS_LOG_TRACE(KS_SDK_IMPL_MODULE, "IMPL->GetBF :%u %f,%f\n", m_rgbd->reserved,
                     static_cast<double>(*bxf), static_cast<double>(*base));
        return 0;
    }
    unsigned int id = 0;
    unsigned char* image = nullptr;
    unsigned short* disparity = nullptr;
    const int fetched = GetNextFrame(&id, &image, &disparity);
    KS_LOG_WARN(KS_SDK_IMPL_MODULE, "No Meta loaded,Retriving Image data\n");
    if (fetched != 0 || m_rgbd == nullptr) {
        KS_LOG_TRACE(KS_SDK_IMPL_MODULE, "IMPL->GetBF :%u %f,%f\n", id, -1.0, -1.0);
        *bxf = -1.0f;
        *base = -1.0f;
        return -1;
    }
    *bxf = m_rgbd->bf;
    *base = m_rgbd->base;
    KS_LOG_TRACE(KS_SDK_IMPL_MODULE, "IMPL->GetBF :%u %f,%f\n", id, static_cast<double>(*bxf),
                 static_cast<double>(*base));
    return 0;
}

// ---- colour table ----

// Rebuilt on every call into the session's buffer; null while the session
// has no buffers.
unsigned char* _KestraStereoCamSDK_Impl::getColorTable() {
    unsigned char* table = m_color_table;
    if (table == nullptr) return nullptr;
    put_rgb(table, 0, 0, 0, 0);
    for (int e = 1; e <= 24; ++e) put_rgb(table, e, 255, 255, 255);
    for (int e = 25; e <= 39; ++e) {
        const int v = 247 - 8 * (e - 25);
        put_rgb(table, e, v, v, v);
    }
    put_rgb(table, 40, 128, 128, 128);
    for (int k = 0; k <= 23; ++k) {
        const int s = t(k, 5.291668);
        put_rgb(table, 41 + k, s - 128, -128 - s, s - 128);
    }
    for (int j = 1; j <= 56; ++j) put_rgb(table, 64 + j, 255 - t(j, 4.553571), 0, 255);
    for (int j = 1; j <= 56; ++j) put_rgb(table, 120 + j, 0, t(j, 4.553571), 255);
    for (int j = 1; j <= 144; ++j) put_rgb(table, 176 + j, 0, 255, 255 - t(j, 1.770833));
    for (int j = 1; j <= 480; ++j) put_rgb(table, 320 + j, t(j, 0.53125), 255, 0);
    for (int j = 1; j <= 1248; ++j) put_rgb(table, 800 + j, 255, 255 - t(j, 0.204327), 0);
    for (int e = 2049; e < kColorEntries; ++e) put_rgb(table, e, 255, 0, 0);
    return table;
}

int _KestraStereoCamSDK_Impl::getRealTimeFPS(double* fps) {
    if (fps == nullptr) return -1;
    return ksV4l2GetRealTimeFPS(m_driver, fps);
}
