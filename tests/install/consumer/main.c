#include <ksStereoCameraDriver.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    KSCameraHandle camera = NULL;
    if (strcmp(ksGetSdkVersion(), "1.4.7.273") != 0) return 1;
    if (ksOpenMIPICameraByPath("/dev/video0", &camera) != -2) return 2;
    printf("installed library %s\n", ksGetSdkVersion());
    return 0;
}
