import pytest

import kscamera


@pytest.fixture
def world():
    """A wall at 1.5 m before one virtual camera, time running 4x."""
    with kscamera.virtual(scene="wall", distance=1500, warp=4) as w:
        yield w


@pytest.fixture
def camera(world):
    with kscamera.open() as cam:
        yield cam
