// Reads IMU samples from the first camera.
//   imu [samples]   (default 20)
#include <ksStereoCameraDriver.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    const int samples = argc > 1 ? std::atoi(argv[1]) : 20;
    _ks_camera_list* list = nullptr;
    if (ksQueryCameraList(&list) != 0 || list == nullptr || list->count == 0) {
        std::printf("no camera found\n");
        return 1;
    }
    KSCameraAbstract* camera = nullptr;
    const int r = ksOpenUVCCameraByPath(list->cameras[0].video_dev, &camera);
    ksReleaseCameraList(list);
    if (r != 0) return 1;

    std::printf("frame-id  counter   temp C   acc x/y/z (m/s^2)          gyro x/y/z (rad/s)\n");
    int read = 0;
    for (int tries = 0; read < samples && tries < samples * 100; ++tries) {
        _ks_imu_data_set_s* s = nullptr;
        // Waits for the next sample; the record is reused by the next call.
        // Right after opening, the IMU is not ready yet: try again shortly.
        if (ksGetIMUData(camera, &s) != 0 || s == nullptr) {
            usleep(10000);
            continue;
        }
        std::printf("%-9llu %-9llu %6.2f  %8.3f %8.3f %8.3f   %8.4f %8.4f %8.4f\n",
                    static_cast<unsigned long long>(s->sync_id),
                    static_cast<unsigned long long>(s->timestamp), s->temperature, s->acc_x,
                    s->acc_y, s->acc_z, s->gyro_x, s->gyro_y, s->gyro_z);
        ++read;
    }
    ksCloseCamera(&camera);
    return read == samples ? 0 : 1;
}
