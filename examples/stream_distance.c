/* Streams from the first camera and prints the distance at the image centre.
 *   stream_distance [frames]   (default 30) */
#include <ksStereoCameraDriver.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
    const int frames = argc > 1 ? atoi(argv[1]) : 30;

    _ks_camera_list* list = NULL;
    if (ksQueryCameraList(&list) != 0 || list == NULL || list->count == 0) {
        printf("no camera found\n");
        return 1;
    }
    KSCameraAbstract* camera = NULL;
    int r = ksOpenUVCCameraByPath(list->cameras[0].video_dev, &camera);
    ksReleaseCameraList(list);
    if (r != 0) {
        printf("cannot open the camera (%d)\n", r);
        return 1;
    }

    unsigned short width = 0, height = 0;
    float bxf = 0, baseline = 0;
    ksGetVideoResolution(camera, &width, &height);
    ksGetBxfAndBase(camera, &bxf, &baseline);

    for (int i = 0; i < frames; ++i) {
        unsigned long id = 0;
        unsigned char* frame = NULL;
        unsigned char *disparity = NULL, *image = NULL;
        /* Waits for the next frame; the buffers belong to the library. */
        if (ksGetCurrentFrame(camera, &id, &frame) != 0 ||
            ksGetRGBDImage(camera, frame, &disparity, &image) != 0)
            continue;
        /* Disparity: value / 32 pixels in the low 13 bits, 0 where unknown. */
        const unsigned short d =
            ((const unsigned short*)disparity)[(height / 2) * width + width / 2] & 0x1FFF;
        if (d == 0)
            printf("frame %lu: centre distance unknown\n", id);
        else
            printf("frame %lu: centre distance %.0f mm\n", id, 32.0 * bxf / d);
    }
    ksCloseCamera(&camera);
    return 0;
}
