"""The machine and the build that figures were measured with."""
import datetime
import os
import platform
import re
import subprocess


def cpu_model():
    with open("/proc/cpuinfo") as info:
        found = re.search(r"^model name\s*: (.*)$", info.read(), re.MULTILINE)
    return found[1] if found else platform.machine()


def cached(build, names):
    with open(os.path.join(build, "CMakeCache.txt")) as cache:
        values = dict(re.findall(r"^(\w+):\w+=(.*)$", cache.read(), re.MULTILINE))
    return [values.get(name, "") for name in names]


def describe(build):
    compiler, kind = cached(build, ("CMAKE_CXX_COMPILER", "CMAKE_BUILD_TYPE"))
    flags = cached(build, ("CMAKE_CXX_FLAGS", f"CMAKE_CXX_FLAGS_{kind.upper()}"))
    version = subprocess.run([compiler, "--version"], capture_output=True, text=True).stdout.splitlines()[0]
    return {
        "date": datetime.datetime.now().astimezone().isoformat(timespec="seconds"),
        "cpu": f"{cpu_model()}, {os.cpu_count()} cores",
        "load": f"{os.getloadavg()[0]:.1f} at the end, the benchmarks themselves make up to 1",
        "kernel": f"{platform.system()} {platform.release()}",
        "compiler": version,
        "flags": f"{kind}: {' '.join(flag for flag in flags if flag)}",
    }
