"""One process of the command under strace: its worker, or the command without its workers."""

import os
import signal
import subprocess

from tools.toolkit import Result, environment, wait_until, workers_of

# The leak check does not work under a tracer.
ENVIRONMENT = {"ASAN_OPTIONS": "detect_leaks=0"}


def status_of(pid, field):
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as file:
        return next(line for line in file if line.startswith(field + ":")).split()[1]


def read(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def stopped_worker(process, log):
    """Waits until the command's worker has stopped, and takes the first tracer away from it."""
    wait_until(lambda: os.path.exists(log) and "stopped by SIGSTOP" in read(log))
    [worker] = workers_of(process.pid)
    os.kill(int(status_of(worker, "TracerPid")), signal.SIGKILL)
    wait_until(lambda: status_of(worker, "State") == "T")
    return worker


def traced_worker(options, words, stdin=b""):
    """Runs words with the worker under strace from its first step on, so that the loader's calls, which have
    the same names, are not counted. Returns the result and the worker's calls."""
    first, second = "/tmp/first.log", "/tmp/second.log"
    for log in (first, second):
        if os.path.exists(log):
            os.unlink(log)
    until_it_stops = ["strace", "-D", "-f", "-qq", "-o", first, "-e", "trace=close_range",
                      "-e", "inject=close_range:signal=STOP", "--"]
    with subprocess.Popen([*until_it_stops, *words], env=environment(**ENVIRONMENT), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        worker = stopped_worker(process, first)
        with subprocess.Popen(["strace", "-qq", "-o", second, *options, "-p", str(worker)]) as tracer:
            wait_until(lambda: status_of(worker, "TracerPid") == str(tracer.pid))
            os.kill(worker, signal.SIGCONT)
            out, err = process.communicate(stdin, timeout=120)
    return Result(subprocess.CompletedProcess(words, process.returncode, out, err)), read(second).splitlines()


def traced_parent(options, words, stdin=b""):
    """The same for the command itself, without its workers."""
    log = "/tmp/parent.log"
    done = subprocess.run(["strace", "-qq", "-o", log, *options, "--", *words], env=environment(**ENVIRONMENT),
                          input=stdin, capture_output=True, timeout=120, check=False)
    return Result(done), read(log).splitlines()
