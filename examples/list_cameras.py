"""Lists the cameras attached to this computer (or the virtual one)."""
import contextlib

import kscamera

# Without a camera attached, the library's built-in virtual camera stands in.
cameras = kscamera.list_cameras()
with kscamera.virtual() if not cameras else contextlib.nullcontext():
    for i, c in enumerate(kscamera.list_cameras()):
        print(f"{i}: {c.node}  serial {c.serial}")
        print(f"   by-path: {c.by_path}")
        print(f"   by-id:   {c.by_id}")
