"""Reads IMU samples.

    python3 imu.py [samples]
"""
import contextlib
import sys

import kscamera

count = int(sys.argv[1]) if len(sys.argv) > 1 else 20
virtual = not kscamera.list_cameras()
with kscamera.virtual() if virtual else contextlib.nullcontext():
    with kscamera.open() as camera:
        for _ in range(count):
            s = camera.read_imu()
            ax, ay, az = s.acc
            gx, gy, gz = s.gyro
            print(f"frame {s.sync_id:<6} counter {s.timestamp:<8} {s.temperature:6.2f} C",
                  f"acc {ax:7.3f} {ay:7.3f} {az:7.3f}  gyro {gx:8.4f} {gy:8.4f} {gz:8.4f}")
