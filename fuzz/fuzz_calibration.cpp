// A calibration station's output: the key/value log with any content, and
// the folder import that checks the folder and its log before it sends the
// image and the parameters to the camera. A value that is not a number may
// make the parser throw (the public layer turns that into an error code);
// nothing else may go wrong.
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "fake_camera.h"
#include "fuzz_input.h"
#include "fuzz_temp_file.h"
#include "ksAsicSdk/source/ksAsicSDK_Impl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string dir = fuzzing::temp_path("calibration");
    static const bool made = mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
    if (!made) return 0;
    fuzzing::Input in(data, size);
    const uint8_t flags = in.u8();
    const uint8_t slot = in.u8();
    const size_t log_size = in.u16() % (in.left() + 1);
    const std::string log(reinterpret_cast<const char*>(in.rest()), log_size);
    const std::string log_path = dir + "/station.log";
    const std::string epr_path = dir + "/station.epr";
    const std::string extra_path = dir + ((flags & 2) ? "/second.log" : "/second.epr");
    if (!fuzzing::write_file(log_path, log.data(), log.size())) return 0;
    const uint8_t* epr = in.rest() + log_size;
    const size_t epr_size = in.left() - log_size;
    if (!fuzzing::write_file(epr_path, epr, epr_size)) return 0;
    if (flags & 4) fuzzing::write_file(extra_path, "", 0);

    fuzzing::FakeCamera camera;
    _KestraStereoCamSDK_Impl session;
    if (session.initCamCtrl(fuzzing::FakeCamera::kNode) == 0) {
        try {
            _struct_epr_info info{};
            _struct_rectify_cam_para_info para{};
            session._private_parseEprLogFile(log_path.c_str(), &info, &para);
        } catch (const std::invalid_argument&) {
        } catch (const std::out_of_range&) {
        }
        if (flags & 1) {
            try {
                session.ksUploadEprWithAutoCalibrationDir(slot, dir.c_str());
            } catch (const std::invalid_argument&) {
            } catch (const std::out_of_range&) {
            }
        }
    }
    session.release();
    std::remove(extra_path.c_str());
    return 0;
}
