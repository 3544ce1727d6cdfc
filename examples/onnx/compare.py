#!/usr/bin/python3
"""The digits network three ways: by the hand-written driver, lowered from ONNX trusting the data as that driver does,
and lowered so that no input of the softmax can overflow. Shows how far the probabilities are apart.

Ends with 1 unless the first two are the same bytes."""
import argparse
import pathlib
import subprocess
import sys

import numpy as np

EXAMPLES = pathlib.Path(__file__).resolve().parents[1]
REPOSITORY = EXAMPLES.parent
BIN = REPOSITORY / "build" / "host" / "bin"
PICTURES = 500


def call(*command: object) -> None:
    done = subprocess.run([*map(str, command)], capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(done.stderr or done.stdout)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--kelrt", default=str(BIN / "kelrt"), metavar="COMMAND", help="what runs kelrt (%(default)s)")
    parser.add_argument("--digits", type=pathlib.Path, default=BIN / "digits", help="the driver (%(default)s)")
    parser.add_argument("folder", type=pathlib.Path, nargs="?", default=REPOSITORY / "build" / "digits-onnx",
                        help="where everything is written (%(default)s)")
    options = parser.parse_args()
    folder = options.folder
    folder.mkdir(parents=True, exist_ok=True)

    call(options.digits, "--out", folder / "driver")
    model = folder / "digits.onnx"
    call(sys.executable, EXAMPLES / "digits" / "export.py", "--pictures", PICTURES, model)
    pixels = np.load(EXAMPLES / "digits" / "data" / "images.npy").reshape(PICTURES, -1)
    np.save(folder / "pixels.npy", pixels.astype(np.int32))
    for name, trust in (("trusting", ["--softmax-in-range"]), ("guarded", [])):
        call(REPOSITORY / "tools" / "onnx" / "kelrt-onnx", model, "--input", f"pixels={folder / 'pixels.npy'}", *trust,
             "--tool", options.kelrt, "--out", folder / name, "--run")

    driver = np.load(folder / "driver" / "probabilities.npy")
    trusting, guarded = (np.load(folder / name / "out" / "probabilities.npy") for name in ("trusting", "guarded"))
    same = driver.tobytes() == trusting.tobytes()
    said = f"the same {driver.nbytes} bytes as" if same else "NOT the bytes of"
    print(f"lowered, softmax in range: {said} the driver's")
    print(f"lowered, softmax guarded:  {np.mean(driver != guarded):.0%} of the numbers differ, by at most "
          f"{abs(driver - guarded).max():.1e}; {np.sum(driver.argmax(1) != guarded.argmax(1))} pictures read otherwise")
    return 0 if same else 1


if __name__ == "__main__":
    sys.exit(main())
