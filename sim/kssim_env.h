// The world the launcher describes: KSSIM_* environment options, shared by
// both preload libraries.
//
//   KSSIM_CAMERAS   number of cameras (default 1, at most 16)
//   KSSIM_SERIALS   comma-separated serial numbers, one per camera
//   KSSIM_SCENE     wall | room | backlit
//   KSSIM_DISTANCE  wall or back-wall distance in mm
//   KSSIM_WARP      time warp factor
//   KSSIM_FPS       frame rate of every camera
//   KSSIM_WEBCAM    1: add a webcam that is not ours
//   KSSIM_USB2      1: add one of our cameras behind a USB 2.0 link
//   KSSIM_FIRMWARE  controller firmware version text ("1022..." for the older one)
//   KSSIM_SENSOR    ov9281 | imx225 | sc132gs | ar0144 | ar0132
//   KSSIM_IMU       0: cameras without IMU
//   KSSIM_IMU_RATE  IMU samples per second
//   KSSIM_LOCK_DIR  absolute directory of node locks shared with other processes
#ifndef KSSIM_ENV_H
#define KSSIM_ENV_H

#include "sim/kssim.h"

namespace kssim {

// A new world built from the environment (not installed), or null after
// printing what is wrong to standard error.
kssim_world* world_from_env();

}  // namespace kssim

#endif
