#!/usr/bin/env python3
"""Checks the camera's udev rule: its syntax (with `udevadm verify` where
udev has it, and always with a strict parser), then what it does for our
camera's nodes and for other cameras, by running the rule on sample devices.

    check_udev_rule.py RULE_FILE DISCOVERY_SOURCE
"""
import fnmatch
import re
import shutil
import subprocess
import sys

MATCH_KEYS = {"ACTION", "SUBSYSTEM", "KERNEL", "ATTR", "ATTRS", "ENV", "TAG"}
ASSIGN_KEYS = {"GROUP", "MODE", "OWNER", "TAG", "SYMLINK", "ENV", "GOTO", "LABEL"}
TOKEN = re.compile(r'\s*([A-Z_]+)(\{[^}]+\})?\s*(==|!=|\+=|-=|:=|=)\s*"([^"]*)"\s*(,|$)')


def parse(path):
    rules = []
    for number, line in enumerate(open(path, encoding="ascii"), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        pos, rule = 0, []
        while pos < len(line):
            m = TOKEN.match(line, pos)
            if not m:
                raise SystemExit(f"{path}:{number}: cannot read: {line[pos:]!r}")
            key, attr, op, value = m.group(1), m.group(2), m.group(3), m.group(4)
            is_match = op in ("==", "!=")
            if key not in (MATCH_KEYS if is_match else ASSIGN_KEYS):
                raise SystemExit(f"{path}:{number}: {key} does not take {op}")
            if key in ("ATTR", "ATTRS", "ENV") and not attr:
                raise SystemExit(f"{path}:{number}: {key} needs {{name}}")
            rule.append((key + (attr or ""), op, value))
            pos = m.end()
        rules.append((number, rule))
    labels = {v for _, r in rules for k, _, v in r if k == "LABEL"}
    for number, r in rules:
        for k, _, v in r:
            if k == "GOTO" and v not in labels:
                raise SystemExit(f"{path}:{number}: GOTO to a missing LABEL {v}")
    return rules


def glob(pattern, text):
    return any(fnmatch.fnmatchcase(text, p) for p in pattern.split("|"))


def run(rules, device):
    """What the rules assign to a device: (group, mode, tags, symlinks)."""
    result = {"GROUP": None, "MODE": None, "TAG": set(), "SYMLINK": []}
    i, goto = 0, None
    while i < len(rules):
        _, rule = rules[i]
        i += 1
        if goto is not None:
            if ("LABEL", "=", goto) in rule:
                goto = None
            continue
        if all(glob(v, device.get(k, "")) == (op == "==") for k, op, v in rule if op in ("==", "!=")):
            for k, op, v in rule:
                if op in ("==", "!="):
                    continue
                v = re.sub(r"\$env\{([^}]+)\}", lambda m: device.get(f"ENV{{{m.group(1)}}}", ""), v)
                if k == "GOTO":
                    goto = v
                elif k in ("TAG", "SYMLINK") and op == "+=":
                    result[k].add(v) if k == "TAG" else result[k].append(v)
                elif k in ("GROUP", "MODE"):
                    result[k] = v
    return result


def main():
    rule_file, discovery_source = sys.argv[1], sys.argv[2]
    udevadm = shutil.which("udevadm")
    if udevadm and subprocess.run([udevadm, "verify", "--help"], capture_output=True).returncode == 0:
        subprocess.run([udevadm, "verify", "--resolve-names=never", rule_file], check=True)
        print("udevadm verify: OK")
    else:
        print("udevadm verify not available: checked by the parser only")
    rules = parse(rule_file)

    # The names the library recognises during discovery.
    words = re.search(r'kKeyWords = "([^"]*)"', open(discovery_source).read()).group(1).split("&")
    ours = ["KESTRA Stereo Camera", "Kestra depth", "KS Stereo Camera"]
    assert any(w.upper() in n.upper() for w in words for n in ours), words
    not_ours = ["Integrated Webcam", "HD Pro Webcam C920", "Kinect-like", "Thinks Camera"]

    failures = []
    for name in ours:
        for index in ("0", "1"):
            dev = {"ACTION": "add", "SUBSYSTEM": "video4linux", "ATTR{name}": name,
                   "ATTR{index}": index, "ENV{ID_SERIAL_SHORT}": "KS0000000001"}
            r = run(rules, dev)
            want_links = ["v4l/by-serial/KS0000000001"] if index == "0" else []
            if (r["GROUP"], r["MODE"], "uaccess" in r["TAG"], r["SYMLINK"]) != \
                    ("video", "0660", True, want_links):
                failures.append(f"{name!r} index {index}: {r}")
        removed = run(rules, {"ACTION": "remove", "SUBSYSTEM": "video4linux", "ATTR{name}": name})
        if removed["TAG"] or removed["SYMLINK"]:
            failures.append(f"{name!r} on remove: {removed}")
    for name in not_ours:
        r = run(rules, {"ACTION": "add", "SUBSYSTEM": "video4linux", "ATTR{name}": name,
                        "ATTR{index}": "0", "ENV{ID_SERIAL_SHORT}": "X1"})
        if r["GROUP"] or r["TAG"] or r["SYMLINK"]:
            failures.append(f"{name!r} is not ours but got {r}")
    no_serial = run(rules, {"ACTION": "add", "SUBSYSTEM": "video4linux",
                            "ATTR{name}": ours[0], "ATTR{index}": "0"})
    if no_serial["SYMLINK"]:
        failures.append(f"a link without a serial number: {no_serial}")
    for f in failures:
        print("FAIL:", f)
    print(f"{len(rules)} rules read, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
