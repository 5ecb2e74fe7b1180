// Session EPR slots: uploading, selecting and listing the camera's stored
// parameter images with their stream descriptors and rectified camera
// parameters, backing up and erasing them, and importing the output folder of
// a calibration station.
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "common/ks_file_utils.h"
#include "common/ks_log.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"
#include "ks_asic_iic_ctrl/source/ks_iic_asic_control.h"
#include "ks_asic_iic_ctrl/source/ks_iic_image_transfer.h"

namespace {

// A calibration log is read up to this many lines, each up to this many
// characters (the rest of a longer line is skipped).
constexpr int kLogLines = 12;
constexpr size_t kLogLineMax = 4096;
// Stream descriptors written by a calibration import carry these two bytes.
constexpr uint8_t kCalibrationReservedA = 20;
constexpr uint8_t kCalibrationReservedB = 25;

// Holds the ASIC guard pair open for a scope.
class AsicBracket {
  public:
    explicit AsicBracket(_struct_ks_ctrl_device* ctrl) : ctrl_(ctrl) {
        ks_asic_control_prep(ctrl_);
    }
    ~AsicBracket() { ks_asic_control_post(ctrl_); }
    AsicBracket(const AsicBracket&) = delete;
    AsicBracket& operator=(const AsicBracket&) = delete;

  private:
    _struct_ks_ctrl_device* ctrl_;
};

// The regular files of a folder whose extension begins with ext, released
// on every way out (the log parser may throw).
class FileList {
  public:
    FileList(const char* dir, const char* ext) {
        ks_list_items_by_type_with_filter(dir, KS_ITEM_TYPE_FILE, ext, 1, &items_, &count_);
    }
    ~FileList() { ks_free_list_items(&items_, &count_); }
    FileList(const FileList&) = delete;
    FileList& operator=(const FileList&) = delete;
    unsigned count() const { return items_ != nullptr ? count_ : 0; }
    const char* first() const { return items_[0]; }

  private:
    char** items_ = nullptr;
    unsigned count_ = 0;
};

class InputFile {
  public:
    explicit InputFile(const char* path) : fp_(path != nullptr ? fopen(path, "r") : nullptr) {}
    ~InputFile() {
        if (fp_ != nullptr) fclose(fp_);
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    bool is_open() const { return fp_ != nullptr; }

    // One line without its line feed; false when nothing was left to read.
    bool read_line(std::string& line) {
        line.clear();
        bool any = false;
        for (int c = fgetc(fp_); c != EOF; c = fgetc(fp_)) {
            any = true;
            if (c == '\n') break;
            if (line.size() < kLogLineMax) line.push_back(static_cast<char>(c));
        }
        return any;
    }

  private:
    FILE* fp_;
};

// Conversions as the standard decimal ones: leading blanks skipped, trailing
// text ignored; non-numeric or out-of-range text throws. Integers are cut to
// 16 bits.
uint16_t to_u16(const std::string& text) {
    return static_cast<uint16_t>(std::stoi(text));
}

float to_float(const std::string& text) {
    return std::stof(text);
}

}  // namespace

// ---- selecting a slot ----

// The stream and its buffers go down first: the slot's resolution may differ.
// Until the last step succeeds the session stays without a stream; a new
// selection or a resume brings it back.
int _KestraStereoCamSDK_Impl::selectEPRParameter(int slot) {
    if (m_driver != nullptr) {
        _private_shutdown_camera_stream();
        _private_free_image_buf();
        m_ready = false;
    } else {
        KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "No Stream Initialized...Skip stream shutdown\n");
    }
    if (ks_select_epr_parameter(m_ctrl, static_cast<uint8_t>(slot & 255)) != 0) return -1;
    if (_private_check_device() != 0) {
        puts("Warning: nuvex sensor init device check error!");
        return -2;
    }
    {
        AsicBracket bracket(m_ctrl);
        if (ks_save_current_epr_slot_index(m_ctrl, static_cast<int8_t>(slot)) != 0)
            KS_LOG_FATAL(KS_SDK_IMPL_MODULE, "Save current slot failed\n");
        if (ks_erase_light_calibdata_eeprom_saving(m_ctrl) != 0)
            KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "Clean cam para failed\n");
    }
    if (initCameraParameter() != 0) {
        puts("Init Camera parameter failed");
        return -3;
    }
    if (m_driver != nullptr) {
        if (_private_start_camera_stream() != 0) {
            puts("Start camera stream failed");
            return -4;
        }
        if (m_driver->nStatus.load() == KS_STREAM_STREAMING) {
            _private_alloc_image_buf();
        } else {
            m_ready = false;
        }
    }
    KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "Select new epr success %d\n", slot);
    return 0;
}

int _KestraStereoCamSDK_Impl::setStreamMode(_struct_epr_info info) {
    return selectEPRParameter(info.index);
}

// ---- uploads ----

int _KestraStereoCamSDK_Impl::uploadEPRtoSlots(const char* file, int slot) {
    return ks_upload_epr_parameter(m_ctrl, file, static_cast<uint8_t>(slot & 255));
}

int _KestraStereoCamSDK_Impl::uploadEPRtoEffectiveNuvexAreaDirect(const char* file) {
    return ks_upload_epr_to_effective_eeprom(m_ctrl, file);
}

// A descriptor the table cannot hold is refused before the image is sent, so
// a failed call leaves the flash as it was.
int _KestraStereoCamSDK_Impl::uploadEPRWithStreamInfo(const char* file, _struct_epr_info* info) {
    if (info == nullptr) {
        puts("upload epr file failed");
        return -1;
    }
    if (info->index < 0 || info->index >= KS_EPR_INFO_SLOTS) {
        puts("epr info saving failed");
        return -1;
    }
    AsicBracket bracket(m_ctrl);
    if (ks_upload_epr_parameter(m_ctrl, file, static_cast<uint8_t>(info->index)) != 0) {
        puts("upload epr file failed");
        return -1;
    }
    if (ks_save_epr_info(m_ctrl, *info) != 0) {
        puts("epr info saving failed");
        return -1;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::uploadEPRtoCamera(const char* file, _struct_epr_info* info) {
    const int r = uploadEPRWithStreamInfo(file, info);
    if (r != 0) return r;
    const int selected = selectEPRParameter(info->index);
    KS_LOG_INFO(KS_SDK_IMPL_MODULE, "Finish upload epr file\n");
    return selected;
}

int _KestraStereoCamSDK_Impl::uploadFpgaBitFile(const char* file) {
    return ks_send_FPGA_bit(m_ctrl, file);
}

// ---- stream descriptors ----

int _KestraStereoCamSDK_Impl::amendStreamInfo(_struct_epr_info* info) {
    if (info == nullptr) return -1;
    AsicBracket bracket(m_ctrl);
    if (ks_save_epr_info(m_ctrl, *info) != 0) {
        puts("epr info saving failed");
        return -1;
    }
    return 0;
}

int _KestraStereoCamSDK_Impl::getCurrentStreamInfo(_struct_epr_info* info) {
    if (info == nullptr) return -1;
    AsicBracket bracket(m_ctrl);
    return ks_get_current_stream_info(m_ctrl, info);
}

// The table has eight slots: the enumeration ends after at most eight records.
int _KestraStereoCamSDK_Impl::querySupportedStreamInfo(std::vector<_struct_epr_info>& out) {
    out.clear();
    AsicBracket bracket(m_ctrl);
    _struct_epr_info rec = {};
    rec.index = 0;
    if (ks_enum_epr_info(m_ctrl, &rec, 1) != 0) return -1;
    out.push_back(rec);
    while (out.size() < static_cast<size_t>(KS_EPR_INFO_SLOTS) &&
           ks_enum_epr_info(m_ctrl, &rec, 0) == 0)
        out.push_back(rec);
    return 0;
}

// ---- rectified camera parameters ----

int _KestraStereoCamSDK_Impl::queryAllSavedRectifyCamPara(
    std::vector<_struct_rectify_cam_para_info>& out) {
    out.clear();
    AsicBracket bracket(m_ctrl);
    _struct_rectify_cam_para_info rec = {};
    if (ks_enum_rectify_camera_para(m_ctrl, &rec, 1) != 0) return -1;
    out.push_back(rec);
    while (out.size() < static_cast<size_t>(KS_RECTIFY_PARA_SLOTS) &&
           ks_enum_rectify_camera_para(m_ctrl, &rec, 0) == 0)
        out.push_back(rec);
    return 0;
}

int _KestraStereoCamSDK_Impl::amendRectifyCamPara(_struct_rectify_cam_para_info* info) {
    if (info == nullptr) return -1;
    AsicBracket bracket(m_ctrl);
    return ks_save_rectify_camera_para(m_ctrl, *info);
}

int _KestraStereoCamSDK_Impl::getCurrentRectifyCamPara(_struct_rectify_cam_para_info* info) {
    if (info == nullptr) return -1;
    AsicBracket bracket(m_ctrl);
    return ks_get_current_rectify_camera_para(m_ctrl, info);
}

int _KestraStereoCamSDK_Impl::getCurrentRectifyCamOpticalCenter(float* cx, float* cy) {
    if (cx == nullptr || cy == nullptr) return -1;
    _struct_rectify_cam_para_info rec = {};
    const int r = getCurrentRectifyCamPara(&rec);
    if (r != 0) return r;
    *cx = rec.opt_center_x;
    *cy = rec.opt_center_y;
    return 0;
}

int _KestraStereoCamSDK_Impl::getCurrentRectifyCamFov(float* h, float* v) {
    if (h == nullptr || v == nullptr) return -1;
    _struct_rectify_cam_para_info rec = {};
    const int r = getCurrentRectifyCamPara(&rec);
    if (r != 0) return r;
    *h = rec.fov_x;
    *v = rec.fov_y;
    return 0;
}

// ---- backup, erasure, factory state ----

// The file gets the whole effective area; a failed download hands out no
// buffer, and the write then fails without creating the file.
int _KestraStereoCamSDK_Impl::downloadEffectiveEprParameter(const char* path) {
    unsigned char* data = nullptr;
    {
        AsicBracket bracket(m_ctrl);
        if (ks_download_effective_epr_data_from_eeprom(m_ctrl, &data) != 0) data = nullptr;
    }
    const int r = write_binary_file(path, data, KS_EEPROM_EPR_SIZE);
    release_binary_data(&data);
    return r;
}

int _KestraStereoCamSDK_Impl::eraseEffectiveEpr() {
    AsicBracket bracket(m_ctrl);
    return ks_erase_effective_epr_data_in_eeprom(m_ctrl);
}

int _KestraStereoCamSDK_Impl::eraseAllCustomEEPROMData() {
    AsicBracket bracket(m_ctrl);
    return ks_erase_all_custom_eeprom_data(m_ctrl);
}

int _KestraStereoCamSDK_Impl::restoreCameraToInitialState() {
    {
        AsicBracket bracket(m_ctrl);
        if (ks_erase_effective_epr_data_in_eeprom(m_ctrl) != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Erase effective epr error\n");
            return -1;
        }
        if (ks_erase_all_custom_eeprom_data(m_ctrl) != 0) {
            KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Erase effective epr error\n");
            return -2;
        }
    }
    ks_camera_hardware_bringup(m_ctrl);
    return 0;
}

int _KestraStereoCamSDK_Impl::showAllCustomEEPROM() {
    AsicBracket bracket(m_ctrl);
    ks_show_disp_offset_eeprom_data(m_ctrl);
    ks_show_search_range_eeprom_data(m_ctrl);
    ks_show_line_offset_eeprom_data(m_ctrl);
    ks_show_camera_sn_eeprom_data(m_ctrl);
    ks_show_epr_stat_eeprom_data(m_ctrl);
    ks_show_fps_stat_eeprom_data(m_ctrl);
    ks_show_rectify_cam_para_eeprom_data(m_ctrl);
    return 0;
}

// ---- calibration folder ----

// Reads the key/value lines of a calibration log. A value that is not a
// number makes the conversion throw; fields of the steps that succeeded
// before keep their new values.
int _KestraStereoCamSDK_Impl::_private_parseEprLogFile(const char* path, _struct_epr_info* info,
                                                       _struct_rectify_cam_para_info* para) {
    InputFile file(path);
    if (!file.is_open()) {
        printf("Falied to open file %s\n", path != nullptr ? path : "(null)");
        return -1;
    }
    std::map<std::string, std::string> entries;
    std::vector<std::string> pieces;
    std::string line;
    for (int n = 0; n < kLogLines; ++n) {
        file.read_line(line);  // a line that cannot be read still counts
        split_string(line, ':', pieces);
        if (pieces.size() != 2) {
            printf("Unexpect line: %s\n", line.c_str());
            continue;
        }
        entries.emplace(pieces[0], pieces[1]);
        KS_LOG_TRACE(KS_SDK_IMPL_MODULE, "[%d]\nKEY: %s\nVal:%s\n", n, pieces[0].c_str(),
                     pieces[1].c_str());
    }

    auto found = entries.find("Out_Resolution");
    if (found == entries.end()) {
        puts("Failed to locate key: Out_Resolution");
        return -2;
    }
    printf("Out Res\n%s\n", found->second.c_str());
    split_string(found->second, 'x', pieces);
    if (pieces.size() != 2) {
        puts("Parse Resolution Failed");
        return -2;
    }
    const uint16_t width = to_u16(pieces[0]);
    const uint16_t height = to_u16(pieces[1]);
    info->width = width;
    info->height = height;
    printf("res %d x %d\n", info->width, info->height);

    found = entries.find("Fov");
    if (found == entries.end()) {
        puts("Failed to locate key: Fov");
        return -3;
    }
    split_string(found->second, ',', pieces);
    if (pieces.size() != 2) {
        puts("Parse Resolution Failed");
        return -3;
    }
    const float fov_x = to_float(pieces[0]);
    const float fov_y = to_float(pieces[1]);
    para->fov_x = fov_x;
    para->fov_y = fov_y;
    printf("FOV %f - %f\n", static_cast<double>(para->fov_x), static_cast<double>(para->fov_y));

    found = entries.find("RectOptCenter");
    if (found == entries.end()) {
        puts("Failed to locate key: RectOptCenter");
        return -4;
    }
    split_string(found->second, ',', pieces);
    if (pieces.size() != 2) {
        puts("Parse RectOptCenter Failed");
        return -4;
    }
    const float cx = to_float(pieces[0]);
    const float cy = to_float(pieces[1]);
    para->opt_center_x = cx;
    para->opt_center_y = cy;
    printf("RectOptCenter %f - %f\n", static_cast<double>(para->opt_center_x),
           static_cast<double>(para->opt_center_y));

    found = entries.find("ROI_Start");
    if (found == entries.end()) {
        puts("Failed to locate key: ROI_Start");
        return -5;
    }
    split_string(found->second, ',', pieces);
    if (pieces.size() != 2) {
        puts("Parse ROI_Start Failed");
        return -5;
    }
    const uint16_t roi_x = to_u16(pieces[0]);
    const uint16_t roi_y = to_u16(pieces[1]);
    para->roi_start_x = roi_x;
    para->roi_start_y = roi_y;
    printf("ROI_Start %d - %d\n", para->roi_start_x, para->roi_start_y);
    return 0;
}

// The folder and its log are checked completely before anything is sent to
// the camera; the image goes to flash before the parameters are stored.
int _KestraStereoCamSDK_Impl::ksUploadEprWithAutoCalibrationDir(unsigned char slot,
                                                                const char* dir) {
    _struct_epr_info info = {};
    info.index = static_cast<int8_t>(slot);
    info.width = 0;
    info.height = 0;
    info.reserved_a = kCalibrationReservedA;
    info.reserved_b = kCalibrationReservedB;
    _struct_rectify_cam_para_info para = {};
    para.index = slot;

    if (ks_is_folder_exist(dir) == 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Dir %s Not Exists\n", dir != nullptr ? dir : "(null)");
        return -1;
    }
    FileList eprs(dir, "epr");
    FileList logs(dir, "log");
    if (eprs.count() != 1 || logs.count() != 1) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "Unexpected Folder Content\n");
        return -2;
    }
    KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "EPR file: %s\n", eprs.first());
    KS_LOG_DEBUG(KS_SDK_IMPL_MODULE, "LOG files: %s\n", logs.first());

    int r = _private_parseEprLogFile(logs.first(), &info, &para);
    if (r != 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "parse Log File err %d", r);
        return -3;
    }
    r = uploadEPRWithStreamInfo(eprs.first(), &info);
    if (r != 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "uploadEPRWithStreamInfoa Failed[%d]\n", r);
        return -4;
    }
    r = amendRectifyCamPara(&para);
    if (r != 0) {
        KS_LOG_ERROR(KS_SDK_IMPL_MODULE, "amendRectifyCamPara Failed[%d]\n", r);
        return -5;
    }
    return 0;
}
