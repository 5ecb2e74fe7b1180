"""Reads the camera's settings, changes a few and reads them back."""
import contextlib

import kscamera


def show(camera):
    print(f"mode {camera.video_mode.name}, search range {camera.search_range},",
          f"disparity offset {camera.disparity_offset:.3f},",
          f"trims {camera.line_trim}, fill light {camera.fill_light.name}",
          f"at {camera.fill_light_intensity}")


virtual = not kscamera.list_cameras()
with kscamera.virtual() if virtual else contextlib.nullcontext():
    with kscamera.open() as camera:
        print(f"camera {camera.serial}, sensor {camera.sensor}, resolution {camera.resolution}")
        show(camera)
        camera.exposure = 400          # 0 .. 800, 0: automatic (set only)
        camera.search_range = 2
        camera.disparity_offset = 1.5
        camera.line_trim = (4, 8)
        camera.fill_light_intensity = 60
        camera.fill_light = kscamera.FillLight.MODE_1
        show(camera)
        try:
            camera.exposure = 900
        except ValueError as e:
            print("refused:", e)
        try:
            camera.fill_light = kscamera.FillLight.ALTERNATE
        except kscamera.CameraError as e:
            print(f"refused by the camera: {e} (code {e.code})")
