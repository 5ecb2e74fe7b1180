#!/usr/bin/env bash
# Puts the single-line faults of a list into the library one at a time,
# rebuilds, runs the tests and reports which faults the tests catch.
#
#   scripts/mutate.sh [-l list] [-b build-dir] [-t seconds] [-a] [-k] [-n] [pattern]
#
#   -l  fault list (default tests/mutations/faults.tsv)
#   -b  build folder of its own (default build-mutate)
#   -t  ctest time-out for tests without one of their own (default 60)
#   -a  build and run every test for every fault, not only the tests of the
#       faulty file's module (see scope below)
#   -k  keep running the tests after the first failure (shows how long every
#       test takes to fail; the time of each fault is printed)
#   -n  only check the list (files exist, each original occurs exactly once)
#   pattern: only the faults whose line contains it (grep -F)
#
# The list has one fault a line, four tab-separated fields: file, original
# text, faulty text (empty: deleted), why it matters. Lines starting with #
# are comments. A "why" that starts with "(equivalent" marks a fault that no
# test can detect; it is run all the same and counted apart.
#
# A file is only mutated when git has no changes of it; it is restored byte
# for byte after each fault, also when the script is interrupted.
set -euo pipefail
cd "$(dirname "$0")/.."

list=tests/mutations/faults.tsv
build=build-mutate
timeout=60
check_only=0
everything=0
stop=(--stop-on-failure)
while getopts "l:b:t:akn" opt; do
    case $opt in
        l) list=$OPTARG ;;
        b) build=$OPTARG ;;
        t) timeout=$OPTARG ;;
        a) everything=1 ;;
        k) stop=() ;;
        n) check_only=1 ;;
        *) sed -n '2,20p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
pattern=${1:-}

# ---- which tests a fault in a file is run against ----------------------------
# "targets|ctest regex" for the tests of a module and of the layers that use
# it directly; a file of no module listed here gets every test. A fault these
# miss can still be tried against everything with -a.
scope() {
    case $1 in
        common/ks_platform.cpp) echo "" ;;
        common/*)
            echo "test_common test_log_threads|^(FileUtils|Log|LogThreads|PlatformSeam)\." ;;
        control_protocol/*)
            echo "test_control_protocol test_control_sim test_control_sim_threads test_imu_receiver" \
                "test_two_processes" \
                "|^(Protocol[A-Za-z]*|ControlSim[A-Za-z]*|ImuReceiver[A-Za-z]*|TwoProcesses)\." ;;
        ks_asic_iic_ctrl/*)
            echo "test_ctrl_eeprom_store test_ctrl_asic_control test_ctrl_cmos_control" \
                "test_ctrl_image_transfer test_ctrl_robustness test_ctrl_threads test_control_sim" \
                "test_two_processes" \
                "|^(EepromStore|AsicControl|CmosControl|ImageTransfer|CtrlLayer|Robustness|ControlSim|TwoProcesses)\." ;;
        ks_v4l2_driver/*)
            echo "test_v4l2_parsers test_v4l2_setup test_v4l2_capture test_v4l2_handoff" \
                "|^(Parsers|FrameRing|FrameHandoff|V4l2[A-Za-z]*)\." ;;
        ks_imu_module/*)
            echo "test_imu_decode test_imu_receiver test_two_processes" \
                "|^(ImuDecode|ImuReceiver[A-Za-z]*|TwoProcesses)\." ;;
        driver/driver_cpp/source/KSDisparity* | driver/driver_cpp/source/KSBackLight* | \
            driver/driver_cpp/source/KSCameraProcessing*)
            echo "test_processing test_processing_first_call test_processing_threads" \
                "|^(BackLight|DenseDisparity|DisparityFilter|DisparityProcessing|RoomScene|LineOffset|ProcessingThreads|Processing|PointCloud|RectDistance|RuntimeEnvironment|DisparityParamFile)\." ;;
        ksAsicSdk/source/ksAsicSDK_Impl_frames.cpp | ksAsicSdk/source/ksAsicSDK_Impl_epr.cpp | \
            driver/driver_cpp/source/KSUVCCamera_frames.cpp)
            echo "test_session_frames|^SessionTest\.(ImageAndDisparity|DenseAndFiltered|FramesWithout|StereoConstants|SecondStream|EprFiles|RefusedSlots|Maintenance|Calibration)" ;;
        ksAsicSdk/* | driver/driver_cpp/source/KSUVCCamera*)
            echo "test_session_open test_session_lifecycle test_session_settings test_session_frames" \
                "test_discovery test_discovery_helpers" \
                "|^(SessionTest|LifecycleTest|SettingsTest|LineOffsetSplit|Discovery|DiscoveryHelpers|FakeHost)\." ;;
        python/* | packaging/*)
            echo "kscamera|^(Python|Packaging)\." ;;
        *) echo "" ;;
    esac
}

# ---- read and check the list -------------------------------------------------
files=() originals=() faulties=() whys=()
errors=0
lineno=0
while IFS= read -r line || [[ -n $line ]]; do
    lineno=$((lineno + 1))
    [[ -z ${line//[[:space:]]/} || $line == \#* ]] && continue
    [[ -n $pattern && $line != *"$pattern"* ]] && continue
    fields=$(awk -F'\t' '{print NF}' <<<"$line")
    if [[ $fields != 4 ]]; then
        echo "list error, line $lineno: $fields fields instead of 4" >&2
        errors=$((errors + 1))
        continue
    fi
    file=${line%%$'\t'*}
    rest=${line#*$'\t'}
    original=${rest%%$'\t'*}
    rest=${rest#*$'\t'}
    faulty=${rest%%$'\t'*}
    why=${rest#*$'\t'}
    if [[ ! -f $file ]]; then
        echo "list error, line $lineno: no file $file" >&2
        errors=$((errors + 1))
        continue
    fi
    count=$(ORIG=$original perl -0777 -ne '$n = () = /\Q$ENV{ORIG}\E/g; print $n' "$file")
    if [[ $count != 1 ]]; then
        echo "list error, line $lineno: the original occurs $count times in $file: $original" >&2
        errors=$((errors + 1))
        continue
    fi
    if [[ $original == "$faulty" ]]; then
        echo "list error, line $lineno: the faulty text equals the original" >&2
        errors=$((errors + 1))
        continue
    fi
    files+=("$file") originals+=("$original") faulties+=("$faulty") whys+=("$why")
done <"$list"
total=${#files[@]}
if ((errors > 0)); then
    echo "$errors list error(s); nothing run" >&2
    exit 2
fi
echo "$total fault(s) in $list"
((check_only)) && exit 0
((total > 0)) || exit 0

# Refuse to touch a file with changes of its own: restoring it must give
# back exactly what git has.
dirty=$(git status --porcelain -- $(printf '%s\n' "${files[@]}" | sort -u))
if [[ -n $dirty ]]; then
    echo "refusing to mutate files with uncommitted changes:" >&2
    echo "$dirty" >&2
    exit 2
fi

# ---- restore on every exit -------------------------------------------------
backup=$(mktemp)
current=""
restore() {
    if [[ -n $current ]]; then
        cat "$backup" >"$current"
        current=""
    fi
}
trap 'restore; rm -f "$backup" "${ctest_log:-}"' EXIT
trap 'restore; rm -f "$backup" "${ctest_log:-}"; echo "interrupted" >&2; exit 130' INT TERM

# ---- build folder ------------------------------------------------------------
jobs=2
if [[ ! -f $build/build.ninja ]]; then
    cmake -S . -B "$build" -G Ninja -DKS_WERROR=OFF -DKS_BUILD_BENCH=OFF >/dev/null
fi
echo "building the unchanged tree in $build ..."
cmake --build "$build" -j "$jobs" >/dev/null
# The first failing test of a ctest log.
first_failure() {
    sed -n 's/^.*Test *#[0-9]*: \([^ ]*\) .*\*\*\*.*$/\1/p' "$1" | head -n 1
}
# The failing test that took longest, with its time (for -k).
slowest_failure() {
    awk '/\*\*\*/ { for (i = 1; i < NF; i++) if ($(i + 1) == "sec" && $i + 0 >= best) {
             best = $i + 0; name = $4 } }
         END { if (name != "") printf "%s, %s s", name, best }' "$1"
}
ctest_log=$(mktemp)
# The unchanged tree must pass, or no result would mean anything.
if ! ctest --test-dir "$build" -j "$jobs" --timeout "$timeout" --no-tests=error >"$ctest_log" 2>&1; then
    echo "the tests fail without any fault; fix that first:" >&2
    grep -E '\*\*\*|Not Run' "$ctest_log" >&2 || true
    rm -f "$ctest_log"
    exit 2
fi

# ---- one fault at a time -----------------------------------------------------
caught=0 equivalent=0 survived=() broken=() lucky=()
for ((i = 0; i < total; i++)); do
    file=${files[i]} why=${whys[i]}
    cp "$file" "$backup"
    current=$file
    ORIG=${originals[i]} FAULTY=${faulties[i]} perl -0777 -i -pe 's/\Q$ENV{ORIG}\E/$ENV{FAULTY}/' "$file"
    start=$SECONDS
    label="[$((i + 1))/$total] $file: $why"
    targets=() select=()
    if ((!everything)); then
        s=$(scope "$file")
        if [[ -n $s ]]; then
            read -r -a targets <<<"${s%%|*}"
            targets=(--target "${targets[@]}")
            select=(-R "${s#*|}")
        fi
    fi
    if ! cmake --build "$build" -j "$jobs" "${targets[@]}" >/dev/null 2>&1; then
        result="does not build"
        broken+=("$label")
    elif ctest --test-dir "$build" -j "$jobs" --timeout "$timeout" "${stop[@]}" \
        --no-tests=error "${select[@]}" >"$ctest_log" 2>&1; then
        if [[ $why == "(equivalent"* ]]; then
            result="survived (equivalent)"
            equivalent=$((equivalent + 1))
        else
            result="SURVIVED"
            survived+=("$label")
        fi
    else
        if [[ $why == "(equivalent"* ]]; then
            result="caught, though listed as equivalent"
            lucky+=("$label")
        fi
        result="${result:-caught} by $(first_failure "$ctest_log")"
        ((${#stop[@]})) || result="$result; slowest to fail: $(slowest_failure "$ctest_log")"
        caught=$((caught + 1))
    fi
    restore
    echo "$label -> $result ($((SECONDS - start)) s)"
    result=""
done
# Leave the build folder matching the restored sources.
cmake --build "$build" -j "$jobs" >/dev/null 2>&1 || true

detectable=$((total - equivalent - ${#broken[@]}))
echo
echo "caught $caught of $detectable detectable faults ($total listed, $equivalent equivalent," \
    "${#broken[@]} not building)"
if ((detectable > 0)); then
    echo "score: $((100 * caught / detectable)) %"
fi
for s in "${survived[@]}"; do echo "survived: $s"; done
for s in "${broken[@]}"; do echo "list error, does not build: $s"; done
for s in "${lucky[@]}"; do echo "listed as equivalent but caught: $s"; done
((${#survived[@]} == 0 && ${#broken[@]} == 0))
