"""One process of the command under strace: its worker, or the command without its workers."""

import contextlib
import os
import signal
import subprocess

from tools.toolkit import Result, environment, wait_until, workers_of

# The leak check does not work under a tracer.
FIRST, SECOND = "/tmp/first.log", "/tmp/second.log"
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
    worker, *_ = workers_of(process.pid)  # import and export have a companion as well, which comes later
    os.kill(int(status_of(worker, "TracerPid")), signal.SIGKILL)
    wait_until(lambda: status_of(worker, "State") == "T")
    return worker


@contextlib.contextmanager
def begun_worker(options, words):
    """The command and its worker, which stands still at its first step with strace attached to it, so that the
    loader's calls, which have the same names, are not counted. The calls go to SECOND."""
    for log in (FIRST, SECOND):
        if os.path.exists(log):
            os.unlink(log)
    until_it_stops = ["strace", "-D", "-f", "-qq", "-o", FIRST, "-e", "trace=close_range",
                      "-e", "inject=close_range:signal=STOP", "--"]
    with subprocess.Popen([*until_it_stops, *words], env=environment(**ENVIRONMENT), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        worker = stopped_worker(process, FIRST)
        with subprocess.Popen(["strace", "-qq", "-o", SECOND, *options, "-p", str(worker)]) as tracer:
            wait_until(lambda: status_of(worker, "TracerPid") == str(tracer.pid))
            yield process, worker


def traced_worker(options, words, stdin=b""):
    """Runs words with the worker under strace. Returns the result and the worker's calls."""
    with begun_worker(options, words) as (process, worker):
        os.kill(worker, signal.SIGCONT)
        out, err = process.communicate(stdin, timeout=120)
    return Result(subprocess.CompletedProcess(words, process.returncode, out, err)), read(SECOND).splitlines()


def killed_with_its_worker(options, words):
    """Runs words, whose worker the options end, as if the whole command had been killed: the command stands still
    while its worker works, and is killed when the worker has ended."""
    with begun_worker(options, words) as (process, worker):
        process.send_signal(signal.SIGSTOP)
        wait_until(lambda: status_of(process.pid, "State") in "Tt")
        os.kill(worker, signal.SIGCONT)
        wait_until(lambda: status_of(worker, "State") == "Z" or idle(worker))
        process.kill()
        process.communicate(timeout=120)


def idle(worker):
    """Whether the worker has ended its task and waits for the next one."""
    calls = read(SECOND).splitlines()
    return len(calls) > 1 and calls[-1].startswith("recvmsg(") and any("sendto(" in line for line in calls)


def traced_parent(options, words, stdin=b""):
    """The same for the command itself, without its workers."""
    log = "/tmp/parent.log"
    done = subprocess.run(["strace", "-qq", "-o", log, *options, "--", *words], env=environment(**ENVIRONMENT),
                          input=stdin, capture_output=True, timeout=120, check=False)
    return Result(done), read(log).splitlines()
