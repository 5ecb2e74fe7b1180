/* Asks the first camera's controller, through the platform seam, for its
 * version text, the FPGA's hardware-info register and a batch of IMU records,
 * speaking the message protocol directly:
 *   "version: <text>", "hw: <hex>", "imu records: <n>". */
#include <errno.h>
#include <fcntl.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h> /* useconds_t, used by the seam header */

#include "common/ks_platform.h"

static int xu(int fd, uint8_t query, uint8_t* block) {
    struct uvc_xu_control_query q;
    memset(&q, 0, sizeof(q));
    q.unit = 3;
    q.selector = 1;
    q.query = query;
    q.size = 320;
    q.data = block;
    return ks_sys_ioctl(fd, UVCIOC_CTRL_QUERY, &q);
}

static void put32(uint8_t* p, uint32_t v) {
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

static uint32_t get32(const uint8_t* p) {
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}

/* One exchange; the reply's length, or -1. */
static int exchange(int fd, uint32_t id, uint32_t cmd, uint32_t param, const uint8_t* data,
                    uint32_t len, uint8_t* reply) {
    uint8_t b[320];
    uint32_t sum = 0;
    memset(b, 0, sizeof(b));
    put32(b, 0x01020304);
    put32(b + 4, id);
    put32(b + 16, cmd);
    put32(b + 20, param);
    put32(b + 24, len);
    for (uint32_t i = 0; i < len; ++i) {
        b[32 + i] = data[i];
        sum += data[i];
    }
    put32(b + 28, sum);
    b[319] = 1;
    if (xu(fd, UVC_SET_CUR, b) != 0) return -1;
    for (int tries = 0; tries < 8; ++tries) {
        if (xu(fd, UVC_GET_CUR, reply) != 0) return -1;
        if (get32(reply) == 0x01020304 && get32(reply + 16) == (cmd | 0x80000000u)) {
            const uint32_t n = get32(reply + 24);
            return n <= 256 ? (int)n : -1;
        }
    }
    return -1;
}

int main(void) {
    const int fd = ks_sys_open("/dev/video0", O_RDWR, 0);
    if (fd < 0) {
        printf("open: %s\n", strerror(errno));
        return 1;
    }
    uint8_t r[320];
    if (exchange(fd, 1, 1, 0, NULL, 0, r) == 32) printf("version: %.32s\n", (const char*)r + 32);
    const uint8_t one[4] = {1, 0, 0, 0};
    if (exchange(fd, 2, 6, 0xC10000, one, 4, r) == 1) printf("hw: %02x\n", r[32]);
    ks_sys_usleep(100000);
    const int n = exchange(fd, 3, 13, 0, NULL, 0, r);
    printf("imu records: %d\n", n < 0 ? -1 : n / 16);
    ks_sys_close(fd);
    return 0;
}
