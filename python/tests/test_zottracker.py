"""The zottracker module: a rendered sequence tracked from Python gives the
poses the C++ host program gives; bad arrays and refused configurations give
their documented errors and leave the session usable."""
import csv
import os
import subprocess
import sys

import numpy as np
import pytest

import zottracker as zt

TOOLS = os.environ.get("ZOT_TOOLS_DIR", "build")
DATA = os.environ.get("ZOT_DATA_DIR", "data")


def numbers(path, per_line):
    """Rows of `per_line` numbers from a pose or time file (# lines skipped)."""
    rows = []
    with open(path) as f:
        for line in f:
            if line.strip() and not line.lstrip().startswith("#"):
                rows.append([float(x) for x in line.split()])
    assert all(len(r) == per_line for r in rows)
    return np.array(rows)


@pytest.fixture(scope="module")
def sequence(tmp_path_factory):
    """A short mono sequence rendered by zot_render and tracked by zot_track."""
    cv2 = pytest.importorskip("cv2")
    root = tmp_path_factory.mktemp("sequence")
    seq, out = root / "seq", root / "out"
    subprocess.run([os.path.join(TOOLS, "zot_render"), "--config", DATA, "--camera",
                    "camera_mono.txt", "--frames", "8", "--scale", "0.5", "--jobs", "1", "-q",
                    str(seq)], check=True, stdout=subprocess.DEVNULL)
    subprocess.run([os.path.join(TOOLS, "zot_track"), "--config", str(seq), "--images",
                    str(seq / "cam0" / "%06d.png"), "--times", str(seq / "times.txt"),
                    "--tool-poses", str(seq / "tool_poses.txt"), "--initial-pose",
                    str(seq / "initial_pose.txt"), "--out", str(out), "-q"],
                   check=True, stdout=subprocess.DEVNULL)
    with open(out / "poses.csv") as f:
        rows = list(csv.DictReader(f))
    images = [cv2.imread(str(seq / "cam0" / f"{i:06d}.png"), cv2.IMREAD_GRAYSCALE)
              for i in range(len(rows))]
    return {"dir": str(seq), "rows": rows, "images": images,
            "times": numbers(seq / "times.txt", 1)[:, 0],
            "tools": numbers(seq / "tool_poses.txt", 16).reshape(-1, 4, 4),
            "start": numbers(seq / "initial_pose.txt", 16).reshape(4, 4)}


def test_tracks_a_rendered_sequence_as_the_cpp_host_does(sequence):
    rows = sequence["rows"]
    assert len(rows) == 8
    with zt.Session(sequence["dir"], "camera.txt", "tracker.txt", "model.txt") as s:
        s.start(sequence["start"])
        for i, row in enumerate(rows):
            r = s.track(sequence["images"][i], sequence["times"][i], sequence["tools"][i])
            assert (r.code, r.message) == (int(row["status"]), row["message"]) == (0, "OK")
            cpp = np.array([float(row[f"T{a}{b}"]) for a in range(4) for b in range(4)])
            # poses.csv holds ten significant digits
            np.testing.assert_allclose(r.pose.ravel(), cpp, rtol=1e-9, atol=1e-12)
            assert 0 < r.matched_samples <= r.samples
            # the sequence's tracker file is the robust demo file
            assert r.quality["inlier_fraction"] == pytest.approx(float(row["inlier_fraction"]), abs=1e-4)
            assert 0 < r.quality["residual_px"] < 1.2
        overlay = s.draw(0, frame_length=30.0)
        assert overlay.shape == sequence["images"][0].shape + (3,)
        assert overlay.dtype == np.uint8
        assert (overlay[:, :, 2] == 255).any()  # the contour in red (BGR)


def test_bad_arrays_are_refused_with_what_was_expected(sequence):
    image = sequence["images"][0]
    h, w = image.shape
    bad_images = [
        (image.astype(np.float64), "got a float64 array"),
        (np.dstack([image] * 3), "got a uint8 array of shape \\(%d, %d, 3\\)" % (h, w)),
        (image[:, ::2], "non-C-contiguous"),
        (image[: h // 2].copy(), "of shape \\(%d, %d\\)" % (h, w)),
        (image.tolist(), "expected 1 image\\(s\\), one per camera, got %d" % h),
        ((image.tolist(),), "got an object of type list"),
        ([image, image], "expected 1 image"),
    ]
    with zt.Session(sequence["dir"], "camera.txt", "tracker.txt", "model.txt") as s:
        s.start(sequence["start"])
        for bad, message in bad_images:
            with pytest.raises(ValueError, match=message):
                s.track(bad, 0.0)
        for bad_pose in (np.eye(3), np.zeros(16), "pose"):
            with pytest.raises(ValueError, match="expected a 4 x 4 float64 array"):
                s.track(image, 0.0, bad_pose)
            with pytest.raises(ValueError, match="initial_pose: expected a 4 x 4"):
                s.start(bad_pose)
        with pytest.raises(ValueError, match="camera: expected 0 to 0, got 1"):
            s.draw(1)
        # Nothing was half-done: the track starts at the first good frame.
        r = s.track(image, sequence["times"][0], sequence["tools"][0])
        assert r.ok
        assert float(sequence["rows"][0]["T03"]) == pytest.approx(r.pose[0, 3], rel=1e-9)


def test_refused_configurations_and_sessions_raise_the_library_message(tmp_path):
    with pytest.raises(zt.Error, match="FAILURE: Camera parser \\(code -10\\)"):
        zt.Session(DATA, "no_such_file.txt", "tracker.txt", "model_l_bracket.txt")
    with pytest.raises(zt.Error, match="Camera parser"):
        zt.parse_config(DATA, "no_such_file.txt", "tracker.txt", "model_l_bracket.txt")
    array = zt.parse_config(DATA, "camera_mono.txt", "tracker_designed.txt", "model_l_bracket.txt")
    with pytest.raises(zt.Error, match="does not describe a tracker"):
        zt.Session.from_array(array[:-1])
    with pytest.raises(ValueError, match="1-D float64 array"):
        zt.Session.from_array(array.reshape(2, -1))

    # The header export round trip, and one session at a time.
    header = zt.export_header(array, str(tmp_path))
    text = open(header).read()
    values = np.array([float(x) for x in text[text.index("{") + 1:text.index("}")].split(",")])
    np.testing.assert_allclose(values, array, atol=5e-7)
    with zt.Session.from_array(values) as s:
        assert s.image_shape(0) == (480, 640)
        np.testing.assert_array_equal(s.setup_array, values)
        with pytest.raises(zt.Error, match="only one at a time"):
            zt.Session.from_array(values)
        assert s.n_cameras == 1  # the first is unaffected
    with pytest.raises(zt.Error, match="closed"):
        s.n_cameras
    with zt.Session.from_array(values) as again:
        assert again.n_cameras == 1
    sizes = zt.pool_sizes(array)
    assert list(sizes) == ["Uchar", "UcharPtr", "Double", "Float", "Int", "IntPtr", "Short"]
    assert sizes["Float"] == 0 and sizes["Double"] > 640 * 480


def test_the_video_example_tracks_a_video_as_the_cpp_host_does(tmp_path):
    pytest.importorskip("cv2")
    seq = tmp_path / "seq"
    subprocess.run([os.path.join(TOOLS, "zot_render"), "--config", DATA, "--camera",
                    "camera_mono.txt", "--frames", "6", "--scale", "0.5", "--jobs", "1", "-q",
                    "--video", str(seq)], check=True, stdout=subprocess.DEVNULL)
    common = ["--config", str(seq), "--initial-pose", str(seq / "initial_pose.txt"),
              "--tool-poses", str(seq / "tool_poses.txt")]
    subprocess.run([os.path.join(TOOLS, "zot_track"), "--images", str(seq / "cam0.avi"),
                    "--out", str(tmp_path), "-q"] + common, stdout=subprocess.DEVNULL)
    with open(tmp_path / "poses.csv") as f:
        cpp = [row["message"] for row in csv.DictReader(f)]
    example = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "track_video.py")
    run = subprocess.run([sys.executable, example, "--video", str(seq / "cam0.avi"), "--out",
                          str(tmp_path / "overlay.avi")] + common, capture_output=True, text=True)
    frames = [line[13:].split("  t =")[0].strip() for line in run.stdout.splitlines() if line.startswith("frame")]
    assert frames == cpp and len(cpp) == 6, run.stdout + run.stderr
    assert run.returncode == (0 if cpp.count("OK") == 6 else 3)
    assert (tmp_path / "overlay.avi").stat().st_size > 0
