/* Lists the V4L2 link directories through the platform seam, as a program
 * built on the driver library would see them: "<link> -> <node>". */
#include <dirent.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h> /* useconds_t, used by the seam header */

#include "common/ks_platform.h"

static int list(const char* dir) {
    struct dirent** names = NULL;
    const int n = ks_sys_scandir(dir, &names, NULL, alphasort);
    if (n < 0) {
        printf("%s: none\n", dir);
        return 0;
    }
    for (int i = 0; i < n; ++i) {
        if (strcmp(names[i]->d_name, ".") != 0 && strcmp(names[i]->d_name, "..") != 0) {
            char link[PATH_MAX];
            char target[PATH_MAX] = {0};
            snprintf(link, sizeof(link), "%s/%s", dir, names[i]->d_name);
            ks_sys_realpath(link, target);
            printf("%s -> %s\n", link, target);
        }
        free(names[i]);
    }
    free(names);
    return n;
}

int main(void) {
    list("/dev/v4l/by-path");
    list("/dev/v4l/by-id");
    return 0;
}
