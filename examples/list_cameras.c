/* Lists the cameras attached to this computer. */
#include <ksStereoCameraDriver.h>
#include <stdio.h>

int main(void) {
    _ks_camera_list* list = NULL;
    if (ksQueryCameraList(&list) != 0 || list == NULL || list->count == 0) {
        printf("no camera found\n");
        if (list != NULL) ksReleaseCameraList(list);
        return 1;
    }
    for (uint32_t i = 0; i < list->count; ++i) {
        const _ks_camera_info_s* c = &list->cameras[i];
        printf("%u: %s  serial %s\n   by-path: %s\n   by-id:   %s\n", i, c->video_dev, c->camera_sn,
               c->usb_path_name, c->v4l_id_name);
    }
    ksReleaseCameraList(list);
    return 0;
}
