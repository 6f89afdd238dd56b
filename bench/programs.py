"""The programs that are measured: built as they are installed, outside the tree's other builds."""

import os
import subprocess

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.environ.get("QUARRYD_BENCH_BUILD", os.path.join(SOURCE, "build", "bench"))
PATHS = {
    "quarryd": "src/quarryd",
    "volsniffer": "volsniffer/volsniffer",
    "hotplug-notice": "hotplug/hotplug-notice",
    "poll_bench": "bench/poll_bench",
    "listing_bench": "bench/listing_bench",
}
CONTENT = {}  # of the programs that are put into the made-up machine


def path(name):
    return os.path.join(BUILD, PATHS[name])


PACKAGES = ("cmake", "g++", "make", "pkg-config", "libblkid-dev", "libcli11-dev",
            "nlohmann-json3-dev", "strace", "util-linux",
            "e2fsprogs", "dosfstools")


def build():
    """Installs what is missing; builds everything, optimised and with assertions, as a release."""
    _run("sh", "-c", '. "$0/scripts/lib/packages.sh" && need_packages "$@"', SOURCE, *PACKAGES)
    _run("cmake", "-S", SOURCE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release", "-DQUARRYD_BENCH=ON")
    _run("cmake", "--build", BUILD, "--parallel", str(os.cpu_count()), "--target", *PATHS)
    for name in ("poll_bench", "listing_bench"):
        with open(path(name), "rb") as file:
            CONTENT[name] = file.read()


def stage():
    """An installation in a folder, for the guest. Returns the folder."""
    folder = os.path.join(BUILD, "stage")
    _run("cmake", "--install", BUILD, env=dict(os.environ, DESTDIR=folder))
    return folder


def _run(*command, env=None):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          env=env)
    if done.returncode:
        raise SystemExit(f"{' '.join(command)}\n{done.stdout}")
