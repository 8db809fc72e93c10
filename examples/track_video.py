#!/usr/bin/python3
"""Tracks an object through a video with the zottracker module and shows or
writes the overlays (the model contour in red at the estimated pose).

Example, on a sequence rendered by zot_render --video:

    PYTHONPATH=build examples/track_video.py --config out/sequence \\
        --video out/sequence/cam0.avi --initial-pose out/sequence/initial_pose.txt \\
        --tool-poses out/sequence/tool_poses.txt --out overlay.avi

Needs OpenCV's Python module (Debian: python3-opencv) for the video.
"""
import argparse
import sys

import cv2
import numpy as np

import zottracker as zt


def read_poses(text_or_path):
    """4 x 4 poses from a file (one per line: 16 numbers, 12, or translation
    and rotation vector in degrees; # lines skipped) or from the numbers."""
    try:
        with open(text_or_path) as f:
            lines = [l for l in f if l.strip() and not l.lstrip().startswith("#")]
    except OSError:
        lines = [text_or_path]
    poses = []
    for n, line in enumerate(lines, 1):
        v = [float(x) for x in line.replace(",", " ").split()]
        if len(v) == 6:
            T = np.eye(4)
            T[:3, :3] = cv2.Rodrigues(np.radians(np.array(v[3:])))[0]
            T[:3, 3] = v[:3]
        elif len(v) in (12, 16):
            T = np.vstack([np.reshape(v[:12], (3, 4)), [0, 0, 0, 1]])
        else:
            sys.exit(f"{text_or_path}: line {n}: expected 16, 12 or 6 numbers, got {len(v)}")
        poses.append(T)
    return poses


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--config", required=True, help="directory of the configuration files")
    p.add_argument("--camera", default="camera.txt")
    p.add_argument("--tracker", default="tracker.txt")
    p.add_argument("--model", default="model.txt")
    p.add_argument("--video", required=True, help="video of a one-camera configuration")
    p.add_argument("--initial-pose", required=True,
                   help="object pose in the tool frame at the first frame: a file or numbers")
    p.add_argument("--tool-poses", help="tool pose in the world per frame (default: fixed)")
    p.add_argument("--fps", type=float, help="time stamps (default: the video's frame rate)")
    p.add_argument("--out", help="write the overlays to this video (Motion-JPEG .avi)")
    p.add_argument("--show", action="store_true", help="show the overlays (q or Esc stops)")
    a = p.parse_args()

    video = cv2.VideoCapture(a.video)
    if not video.isOpened():
        sys.exit(f"{a.video}: cannot open the video")
    fps = a.fps or video.get(cv2.CAP_PROP_FPS) or 30.0
    tools = read_poses(a.tool_poses) if a.tool_poses else None
    try:
        session = zt.Session(a.config, a.camera, a.tracker, a.model)
    except zt.Error as e:
        sys.exit(f"{a.config}: {e}")
    with session:
        if session.n_cameras != 1:
            sys.exit(f"{a.config}: {session.n_cameras} cameras; this example tracks one video")
        session.start(read_poses(a.initial_pose)[0])
        writer, frame, failed = None, 0, 0
        while True:
            ok, image = video.read()
            if not ok:
                break
            if tools is not None and frame >= len(tools):
                sys.exit(f"{a.tool_poses}: {len(tools)} poses, the video has more frames")
            grey = cv2.cvtColor(image, cv2.COLOR_BGR2GRAY) if image.ndim == 3 else image
            try:
                r = session.track(grey, frame / fps, None if tools is None else tools[frame])
            except ValueError as e:
                sys.exit(f"{a.video}: frame {frame}: {e}")
            failed += not r.ok
            t = r.pose[:3, 3] if r.ok else None
            print(f"frame {frame:5d}  {r.message:40s}" +
                  (f"  t = {t[0]:8.2f} {t[1]:8.2f} {t[2]:8.2f}" if r.ok else ""))
            overlay = session.draw(0, frame_length=30.0)
            if a.out:
                if writer is None:
                    h, w = overlay.shape[:2]
                    writer = cv2.VideoWriter(a.out, cv2.VideoWriter_fourcc(*"MJPG"), fps, (w, h))
                    if not writer.isOpened():
                        sys.exit(f"{a.out}: cannot write the video")
                writer.write(overlay)
            if a.show:
                cv2.imshow("zottracker", overlay)
                if cv2.waitKey(1) in (ord("q"), 27):
                    break
            frame += 1
        if writer is not None:
            writer.release()
    print(f"{frame} frames, {failed} failed")
    return 0 if frame > 0 and failed == 0 else 3


if __name__ == "__main__":
    sys.exit(main())
