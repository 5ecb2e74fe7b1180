"""Captures one frame: colour, depth and point cloud as numpy files.

    python3 capture.py [folder]
"""
import contextlib
import pathlib
import sys

import numpy as np

import kscamera

folder = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
folder.mkdir(parents=True, exist_ok=True)
virtual = not kscamera.list_cameras()
with kscamera.virtual(scene="room") if virtual else contextlib.nullcontext():
    with kscamera.open() as camera:
        frame = camera.wait_for_frame()
        cloud = camera.point_cloud(frame)        # (N, 3) float32, millimetres
        camera.video_mode = kscamera.VideoMode.RECTIFIED
        pair = camera.wait_for_frame(timeout=30)  # frames of the new mode

np.save(folder / "colour.npy", frame.colour)      # (height, width, 3) RGB
np.save(folder / "depth.npy", frame.depth)        # (height, width) mm, 0 unknown
np.save(folder / "cloud.npy", cloud)
np.save(folder / "left.npy", pair.left)           # rectified grey
np.save(folder / "right.npy", pair.right)         # rectified RGB
print(f"frame {frame.id}: {frame.width} x {frame.height}, {len(cloud)} points,",
      f"nearest {cloud[:, 2].min():.0f} mm; saved into {folder}/")
