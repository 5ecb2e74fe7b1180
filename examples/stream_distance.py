"""Streams and prints the distance at the image centre.

    python3 stream_distance.py [frames]
"""
import contextlib
import sys

import kscamera

frames = int(sys.argv[1]) if len(sys.argv) > 1 else 30
# Without a camera attached: a virtual wall at 1.5 m.
virtual = not kscamera.list_cameras()
with kscamera.virtual(scene="wall") if virtual else contextlib.nullcontext():
    with kscamera.open() as camera:
        for _ in range(frames):
            frame = camera.wait_for_frame()
            mm = frame.distance_at(frame.width // 2, frame.height // 2)
            print(f"frame {frame.id}: centre distance",
                  f"{mm:.0f} mm" if mm is not None else "unknown")
