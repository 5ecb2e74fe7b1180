#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz harnesses into corpus/<harness>/.

Seeds are small, hand-shaped inputs that reach the interesting paths at
once; fuzzing finds the rest. Run again after changing an input layout;
inputs saved from crashes (crash-*) are kept as they are.
"""
import os
import random
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
rng = random.Random(20261123)


def put(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(bytes(data))


def u16(v):
    return struct.pack("<H", v & 0xFFFF)


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


def noise(n):
    return bytes(rng.randrange(256) for _ in range(n))


# ---- frame parsers: width-1 (u16), height-1 (u8), disparity offset, range, frame ----
def source_pixel(y, n, v):
    return bytes([v & 0xFF, ((n & 0xF) << 4) | ((v >> 8) & 0xF), y])


def frame(w, h, marker=True):
    out = bytearray(noise(w * h * 3))
    if marker:
        out[0:3] = source_pixel(0, 0, 0xACE)
    return bytes(out)


for name, (w, h, off, rng_off, marker) in {
    "rgbd_small": (32, 8, 0, 2, True),
    "odd_width": (33, 5, -5, 0, True),
    "wide_tail": (397, 3, 30000, 255, False),
    "one_pixel": (1, 1, 0, 0, True),
    "negative_offset": (64, 6, -32768, 7, True),
}.items():
    put("fuzz_frame_parsers", name, u16(w - 1) + bytes([h - 1]) + u16(off) + bytes([rng_off]) +
        frame(w, h, marker))


# ---- control replies: 4 calls, 64 argument bytes, then reply steps ----
def control_seed(calls, args, replies):
    return bytes(calls) + (bytes(args) + bytes(64))[:64] + bytes(replies)


WELL = b"\x03"  # one well-behaved reply
put("fuzz_control_replies", "version_status", control_seed([0, 10, 13, 27], [], WELL * 8))
put("fuzz_control_replies", "iic_read_write",
    control_seed([5, 6, 18, 20], u16(4) + bytes([0xCD]) + u16(0x10) + bytes([0xA0]) + u16(0x20) + u16(8),
                 WELL * 40))
put("fuzz_control_replies", "flash_sector", control_seed([14, 15, 23, 24], [1, 0, 2, 0], WELL * 80))
put("fuzz_control_replies", "raw_blocks", control_seed([0, 1, 10, 13], [],
                                                      b"\x00" + noise(320) + b"\x00" + noise(320)))
put("fuzz_control_replies", "framed_lengths",
    control_seed([11, 8, 9, 29], [3, 1, 5, 1, 4],
                 b"\x01" + u16(257) + b"\x41" + u16(16) + noise(16) + u32(7) +
                 b"\x02" + noise(8) + b"\x81" + u16(3) + b"abc" + u32(0x8000000B) + WELL * 30))
put("fuzz_control_replies", "gpio_naked", control_seed([7, 9, 16, 28], [17, 1, 4, 3, 1, 1, 1], WELL * 30))


# ---- IMU: prev counter, wrap, frame id, then replies to the IMU request ----
def imu_records(start, n, step=1):
    out = b""
    for k in range(n):
        rec = bytearray(noise(16))
        rec[14:16] = u16(start + k * step)
        out += rec
    return out


put("fuzz_imu_decode", "sixteen_records",
    u16(100) + b"\x00" + u32(42) + b"\x01" + u16(256) + imu_records(101, 16) + b"\x03")
put("fuzz_imu_decode", "wrapping_counter",
    u16(65530) + b"\x02" + u32(7) + b"\x01" + u16(64) + imu_records(65533, 4) +
    b"\x01" + u16(48) + imu_records(2, 3, 40))
put("fuzz_imu_decode", "odd_length", u16(0) + b"\x00" + u32(1) + b"\x01" + u16(37) + noise(37) +
    b"\x01" + u16(290) + noise(256))


# ---- EEPROM store: write flags, custom area (0xB8 bytes), write values ----
def custom_area():
    area = bytearray(b"\xff" * 0xB8)
    area[0x00:0x03] = bytes([0xC1, 0x01, 0x23])          # disparity offset
    area[0x08:0x0A] = bytes([0xC2, 0x05])                # search range
    area[0x10:0x14] = bytes([0xC3, 0x01, 0x80, 0x00])    # line offset
    sn = b"KS2026110001"
    area[0x18:0x1A + len(sn)] = bytes([0xC4, len(sn)]) + sn
    area[0x2A:0x2C] = bytes([0xC5, 0x05])                # EPR table, slots 0 and 2
    area[0x2C:0x32] = bytes([0, 0x02, 0xD0, 0x05, 0x00, 0x14])
    area[0x5C:0x5E] = bytes([0xC5, 0x00])
    area[0x5E:0x62] = bytes([0xC6, 0x00, 0x1E, 0x00])
    area[0x66:0x68] = bytes([0xC7, 0x01])
    return bytes(area)


put("fuzz_eeprom_store", "filled_area", b"\x00" + custom_area())
put("fuzz_eeprom_store", "erased_area", b"\x0f" + b"\xff" * 0xB8 + b"SN-1\x00" + bytes(12))
put("fuzz_eeprom_store", "long_serial", b"\x01" + custom_area()[:0x18] + b"\xc4\xff" + noise(0x9E) +
    b"ABCDEFGHIJKLMNOP\x00")
put("fuzz_eeprom_store", "noise", b"\x0e" + noise(0xB8 + 16))

# ---- binary files: what (bit 0: bitstream, else EPR to slot what >> 1), file ----
put("fuzz_binary_files", "empty_epr", b"\x00")
put("fuzz_binary_files", "epr_slot3", b"\x06" + noise(700))
put("fuzz_binary_files", "bitstream_sector", b"\x01" + noise(4096))

# ---- disparity parameter file ----
put("fuzz_disparity_param", "two_values", b"-1.500000\n3.250000\n")
put("fuzz_disparity_param", "no_newline", b"2.5")
put("fuzz_disparity_param", "huge", b"1e39\n-0\n")
put("fuzz_disparity_param", "long_line", b"7" * 120 + b"\n1\n")
put("fuzz_disparity_param", "nan", b"nan\ninf\n")


# ---- calibration: flags, slot, log length (u16), log, EPR ----
def calibration(flags, slot, log, epr):
    return bytes([flags, slot]) + u16(len(log)) + log + epr


GOOD_LOG = (b"Out_Resolution:1280x720\nFov:87.5,58.25\nRectOptCenter:640.5,360.25\n"
            b"ROI_Start:12,8\nBaseline:60\n")
put("fuzz_calibration", "good_import", calibration(1, 0, GOOD_LOG, noise(600)))
put("fuzz_calibration", "bad_number", calibration(1, 2, GOOD_LOG.replace(b"12,8", b"x,8"), noise(10)))
put("fuzz_calibration", "two_logs", calibration(7, 1, GOOD_LOG, noise(10)))
put("fuzz_calibration", "huge_number",
    calibration(0, 0, b"Out_Resolution:99999999999999999999x1\nFov:1e99,1\n", b""))
put("fuzz_calibration", "missing_keys", calibration(1, 9, b"Fov:1,2\n::\nkey:value:more\n" * 5, b""))


# ---- processing: ops, width-1, height-1, geometry, line offset, limits, rectangle, map, image ----
def processing(ops, w, h, map_bytes, image, bxf=(30000, 60), line=-8, limits=None, rect=(10, 2, 40, 6)):
    out = bytes([ops]) + u16(w - 1) + bytes([h - 1])
    if ops & 0x80:
        out += struct.pack("<ff", *bxf)
    else:
        out += u16(bxf[0]) + bytes([bxf[1]])
    out += bytes([line & 0xFF])
    if ops & 0x40:
        out += struct.pack("<ff", *limits)
    out += b"".join(u16(v) for v in rect)
    return out + map_bytes + image


def blocky_map(w, h):
    vals = []
    for r in range(h):
        for c in range(w):
            vals.append(0 if (r * 7 + c * 3) % 11 == 0 else 32 * (8 + (c // 16) % 5))
    return b"".join(u16(v) for v in vals)


put("fuzz_processing", "dense_vga_rows", processing(0x1F, 200, 40, blocky_map(200, 40), noise(200 * 40)))
put("fuzz_processing", "filter_wide", processing(0x5E, 1280, 20, blocky_map(1280, 20)[:4000], noise(300),
                                                 limits=(5000.0, 200.0)))
put("fuzz_processing", "nan_geometry", processing(0x9B, 64, 30, noise(500), b"", bxf=(float("nan"), -1.0)))
put("fuzz_processing", "tiny", processing(0x1F, 3, 2, noise(12), noise(9)))

# ---- discovery: serial area, links, then per link its names and answers ----
def discovery_link(card_how, sizes, link_pick=1, target_pick=1):
    out = bytes([link_pick]) + bytes([0]) + bytes([target_pick]) + bytes([0]) + b"\x01"
    out += bytes([card_how]) + b"\x01" + u32(0x56595559) + b"YUYV 4:2:2".ljust(32, b"\0")
    out += bytes([len(sizes)]) + b"".join(sizes) + b"\x01"
    return out


SN = bytes([0xC4, 8]) + b"KS000042" + bytes(8)
HD = b"\x01"
VGA = b"\x00" + u16(640) + u16(480)
put("fuzz_discovery", "one_camera", SN + b"\x01" + discovery_link(0x01, [VGA, HD]) + b"KS000042\x00")
put("fuzz_discovery", "camera_and_webcam",
    SN + b"\x02" + discovery_link(0x41, [HD]) + discovery_link(0x81, [VGA], 2, 2) + b"\x00")
put("fuzz_discovery", "usb2_camera", SN + b"\x01" + discovery_link(0x01, [VGA, VGA]))
put("fuzz_discovery", "long_target", SN + b"\x01" + b"\x01\x00\x00\x01" + b"/dev/" + b"v" * 40 + b"\x00" +
    b"\x01\x01\x01" + u32(0) + bytes(32) + b"\x01\x01\x00")
put("fuzz_discovery", "no_devices", SN + b"\x00\x01")
