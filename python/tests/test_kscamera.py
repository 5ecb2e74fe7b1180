"""The Python binding against the virtual camera."""
import threading

import numpy as np
import pytest

import kscamera


def test_list_and_open_by_each_route():
    with kscamera.virtual(cameras=2, serials=["PYCAM01", "PYCAM02"], warp=4) as world:
        cams = kscamera.list_cameras()
        assert sorted(c.serial for c in cams) == ["PYCAM01", "PYCAM02"]
        for c in cams:
            assert c.node.startswith("/dev/video")
            assert c.node in world.nodes
            assert c.by_path.startswith("/dev/v4l/by-path/")
            assert c.serial in c.by_id
        second = next(c for c in cams if c.serial == "PYCAM02")
        with kscamera.open(serial="PYCAM02") as cam:
            assert cam.serial == "PYCAM02"
        assert cam.closed
        with kscamera.open(path=second.by_path) as cam:
            assert cam.serial == "PYCAM02"
        with kscamera.open(number=int(second.node[len("/dev/video"):])) as cam:
            assert cam.serial == "PYCAM02"
        with pytest.raises(ValueError):
            kscamera.open(serial="PYCAM01", path=second.node)


def test_errors_carry_the_library_code():
    with kscamera.virtual(warp=4):
        with pytest.raises(kscamera.CameraError) as e:
            kscamera.open(path="/dev/video99")
        assert e.value.code == -2
        assert "/dev/video99" in str(e.value)
        with pytest.raises(kscamera.CameraError) as e:
            kscamera.open(serial="NOSUCHSERIAL")
        assert e.value.code != 0
    # Without a world and without hardware there is nothing to open.
    if not kscamera.list_cameras():
        with pytest.raises(kscamera.CameraError):
            kscamera.open()


def test_rgbd_frame_arrays_and_distance(world, camera):
    assert camera.video_mode == kscamera.VideoMode.RGBD
    width, height = camera.resolution
    first = camera.wait_for_frame()
    frame = camera.wait_for_frame()
    assert frame.id > first.id
    assert (frame.width, frame.height) == (width, height)
    assert frame.colour.shape == (height, width, 3) and frame.colour.dtype == np.uint8
    assert frame.disparity.shape == (height, width) and frame.disparity.dtype == np.uint16
    assert frame.depth.shape == (height, width) and frame.depth.dtype == np.uint16
    assert frame.left is None and frame.right is None
    assert frame.colour.flags.owndata or frame.colour.base is not None
    bxf, baseline = camera.stereo_constants
    assert frame.bxf == pytest.approx(bxf) and frame.baseline == pytest.approx(baseline)
    assert frame.timestamp > 0

    # Depth is 32 x bxf / disparity where the disparity is valid.
    d = frame.disparity & 0x1FFF
    valid = d > 0
    assert valid.mean() > 0.5
    expected = np.minimum(np.rint(32.0 * frame.bxf / d[valid]), 65535)
    assert np.array_equal(frame.depth[valid], expected.astype(np.uint16))
    assert not frame.depth[~valid].any()

    truth = world.true_distance(width // 2, height // 2)
    assert truth == pytest.approx(1500, rel=0.01)
    assert frame.distance_at(width // 2, height // 2) == pytest.approx(truth, rel=0.02)
    # The colour image is a textured wall, not a blank buffer.
    assert frame.colour.std() > 5


def test_frames_keep_their_copies(camera):
    frame = camera.wait_for_frame()
    kept = frame.disparity.copy(), frame.colour.copy()
    for _ in range(3):
        camera.wait_for_frame()
    camera.close()
    assert np.array_equal(frame.disparity, kept[0])
    assert np.array_equal(frame.colour, kept[1])
    with pytest.raises(kscamera.CameraError):
        camera.wait_for_frame()


def test_point_cloud_and_rect_distance(world, camera):
    frame = camera.wait_for_frame()
    cloud = camera.point_cloud(frame)
    assert cloud.dtype == np.float32 and cloud.ndim == 2 and cloud.shape[1] == 3
    assert cloud.shape[0] == np.count_nonzero(frame.disparity)
    # A wall facing the camera: every point lies at its distance.
    assert np.median(cloud[:, 2]) == pytest.approx(1500, rel=0.02)

    w, h = frame.width, frame.height
    r = camera.rect_distance(frame, w // 2 - 20, h // 2 - 20, 40, 40)
    assert 0 < r.valid_ratio <= 1
    assert r.mean_distance == pytest.approx(1500, rel=0.02)
    assert r.min_disparity <= r.mean_disparity <= r.max_disparity
    assert r.min_distance <= r.mean_distance <= r.max_distance
    with pytest.raises(ValueError):
        camera.rect_distance(frame, w - 10, 0, 40, 40)
    with pytest.raises(ValueError):
        camera.point_cloud(np.zeros((10, 10), np.uint16))


def test_rectified_and_raw_modes(camera):
    width, height = camera.resolution
    camera.video_mode = "rectified"
    assert camera.video_mode == kscamera.VideoMode.RECTIFIED
    frame = camera.wait_for_frame(timeout=30)
    assert frame.mode == kscamera.VideoMode.RECTIFIED
    assert frame.left.shape == (height, width) and frame.left.dtype == np.uint8
    assert frame.right.shape == (height, width, 3) and frame.right.dtype == np.uint8
    assert frame.colour is None and frame.depth is None
    with pytest.raises(ValueError):
        frame.distance_at(0, 0)

    camera.video_mode = kscamera.VideoMode.RAW
    frame = camera.wait_for_frame(timeout=30)
    assert frame.left.shape == (height, width) and frame.left.dtype == np.uint16
    assert frame.right.dtype == np.uint16
    with pytest.raises(ValueError):
        camera.video_mode = "sideways"


def test_settings_round_trip_and_checks(camera):
    camera.search_range = 3
    assert camera.search_range == 3
    camera.disparity_offset = 2.5
    assert camera.disparity_offset == pytest.approx(2.5)
    camera.line_offset = -4
    assert camera.line_offset == pytest.approx(-4)
    camera.line_trim = (6, 10)
    assert camera.line_trim == (6, 10)
    camera.fill_light_intensity = 40
    camera.fill_light = kscamera.FillLight.MODE_1
    assert camera.fill_light == kscamera.FillLight.MODE_1
    assert camera.fill_light_intensity == 40
    camera.serial = "RENAMED7"
    assert camera.serial == "RENAMED7"
    camera.exposure = 800
    camera.gain = 16
    with pytest.raises(ValueError):
        camera.exposure = 801
    with pytest.raises(ValueError):
        camera.line_trim = (3, 4)
    with pytest.raises(AttributeError):
        camera.exposure
    with pytest.raises(kscamera.CameraError) as e:
        camera.fill_light = kscamera.FillLight.ALTERNATE
    assert e.value.code == -2 and "fill light" in str(e.value)
    assert [c.slot for c in camera.stream_configs] == [0, 1]
    assert camera.stream_config in (0, 1)
    assert camera.sensor
    assert camera.usb_version


def test_imu_samples_advance(camera):
    samples = [camera.read_imu() for _ in range(5)]
    stamps = [s.timestamp for s in samples]
    assert stamps == sorted(stamps) and stamps[-1] > stamps[0]
    # At rest: gravity.
    acc = np.array(samples[-1].acc)
    assert np.linalg.norm(acc) == pytest.approx(9.8, rel=0.1)


def test_epr_backup_and_progress(camera, tmp_path):
    seen = []
    path = tmp_path / "effective.epr"
    camera.backup_epr(str(path), progress=lambda what, done, total: seen.append((done, total)))
    assert path.stat().st_size > 0
    assert seen and seen[-1][0] == seen[-1][1]
    with pytest.raises(kscamera.CameraError):
        camera.import_calibration(str(tmp_path / "missing"), 3)


def test_waits_release_the_interpreter(camera):
    # A second thread runs Python code while the first waits for frames.
    counter = [0]
    stop = threading.Event()

    def spin():
        while not stop.is_set():
            counter[0] += 1

    t = threading.Thread(target=spin)
    t.start()
    try:
        for _ in range(5):
            camera.wait_for_frame()
    finally:
        stop.set()
        t.join()
    assert counter[0] > 0


def test_world_close_closes_its_cameras():
    world = kscamera.virtual(warp=4)
    cam = kscamera.open()
    world.close()
    assert cam.closed
    with pytest.raises(ValueError):
        kscamera.virtual(cameras=0)
    with kscamera.virtual(warp=4):
        with pytest.raises(ValueError):
            kscamera.virtual()
