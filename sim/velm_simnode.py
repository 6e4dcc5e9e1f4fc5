"""What the node tool stand-ins (rosterbind, rosterctl, replicacfg, svcload, ps, nmcli, networkctl)
share: their sandbox root, the record of their calls, the behaviour file that scripts a run, the
passwords they check, and the files they keep.

Each needs VELM_ROOT (absolute; exit 78 without it: they never touch the real /etc).

Record: every run appends its arguments to <root>/sim/tools/<name>.calls as one line, each
argument quoted as a shell would need (shlex.join), so plain arguments read as they do in the
file-system tools' records. Standard input is never recorded: passwords travel there.

Behaviour file <root>/sim/tools/<name>.plist (optional XML plist dictionary, read every run; a
malformed file or key is reported on stderr and ignored), the file-system tools' keys and more:
  sleepSeconds (number)  sleep this long first
  hang (boolean)         print output and error, then sleep for a day: a tool that never ends
  failTimes (integer N)  the first N runs print a complaint and exit failStatus; the count starts
                         again whenever the behaviour file is rewritten
                         (<root>/sim/tools/<name>.failures keeps it)
  failStatus (integer)   default 1
  output, error (string) print these on stdout and stderr
  exitStatus (integer)   exit with this (default 0)
When output, error or exitStatus is there (and no failing run comes first), the run does only
that; otherwise the tool works. Each tool may add keys of its own.
"""

import contextlib
import fcntl
import hashlib
import os
import plistlib
import shlex
import sys
import tempfile
import time

EX_USAGE = 64
EX_NOPERM = 77
EX_CONFIG = 78

TOOLS_DIR = "sim/tools"
DIRECTORY_DIR = "sim/directory"
PASSWORDS_FILE = "sim/directory/passwords.plist"
HANG_SECONDS = 86400


class Exit(Exception):
    """Ends the run with status, printing text (when there is any) on stderr."""

    def __init__(self, status, text=""):
        super().__init__(text)
        self.status = status


class Tool:
    def __init__(self, name, argv):
        self.name = name
        self.args = list(argv)
        root = os.environ.get("VELM_ROOT", "")
        if not root:
            # Empty means the real root to the plugin; a stand-in must never edit that.
            raise Exit(EX_CONFIG, "VELM_ROOT is not set")
        self.root = os.path.abspath(root).rstrip("/") or "/"
        self.behaviour = {}

    def path(self, relative):
        return os.path.join(self.root, relative)

    def complain(self, text):
        sys.stderr.write(f"{self.name}: {text}\n")
        sys.stderr.flush()

    def record(self):
        directory = self.path(TOOLS_DIR)
        line = (shlex.join(self.args) + "\n").encode("utf-8", "surrogateescape")
        try:
            os.makedirs(directory, exist_ok=True)
            # One write with O_APPEND, so tools running side by side don't interleave lines.
            fd = os.open(os.path.join(directory, self.name + ".calls"),
                         os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC, 0o644)
            try:
                os.write(fd, line)
            finally:
                os.close(fd)
        except OSError as e:
            self.complain(f"cannot record the call: {e}")

    def read_behaviour(self):
        path = self.path(f"{TOOLS_DIR}/{self.name}.plist")
        try:
            value = read_plist(path, {})
        except ValueError as e:
            self.complain(str(e))
            return {}
        if not isinstance(value, dict):
            self.complain(f"{path}: not a dictionary")
            return {}
        return value

    def key(self, name, kind, default=None):
        """A behaviour key of that type, else default (a wrong type is reported)."""
        value = self.behaviour.get(name)
        if value is None:
            return default
        ok = (isinstance(value, (int, float)) and not isinstance(value, bool) if kind is float
              else isinstance(value, kind) and (kind is bool or not isinstance(value, bool)))
        if not ok:
            self.complain(f"{self.name}.plist: {name} is not {kind.__name__}; ignored")
            return default
        return value

    def begin(self):
        """Records the call and carries out the behaviour file. Returns an exit status when the
        file scripted the run, None when the tool should work."""
        self.record()
        self.behaviour = self.read_behaviour()
        pause = self.key("sleepSeconds", float, 0)
        if pause > 0:
            time.sleep(min(pause, HANG_SECONDS))
        output = self.key("output", str)
        error = self.key("error", str)
        status = self.key("exitStatus", int)
        if self.key("hang", bool, False):
            emit(output, error)
            time.sleep(HANG_SECONDS)
            return 1 if status is None else status & 0xFF
        if self._failing_run():
            return self.key("failStatus", int, 1) & 0xFF
        if output is None and error is None and status is None:
            return None
        emit(output, error)
        return 0 if status is None else status & 0xFF

    def _failing_run(self):
        times = self.key("failTimes", int, 0)
        if times <= 0:
            return False
        plist = self.path(f"{TOOLS_DIR}/{self.name}.plist")
        counter = self.path(f"{TOOLS_DIR}/{self.name}.failures")
        try:
            with open(plist, "rb") as f:
                # Time and content: a rewrite within the clock's tick still counts as new.
                stamp = "{}-{}".format(os.fstat(f.fileno()).st_mtime_ns,
                                       hashlib.sha1(f.read()).hexdigest())
        except OSError:
            return False
        with locked(self.path(TOOLS_DIR)):
            try:
                with open(counter) as f:
                    count, counted = f.read().split()
                count = int(count) if counted == stamp else 0
            except (OSError, ValueError):
                count = 0
            if count >= times:
                return False
            count += 1
            write_atomically(counter, f"{count} {stamp}\n".encode())
        self.complain(f"failing as {self.name}.plist says (run {count} of {times})")
        return True

    def check_password(self, user, given):
        """True when passwords.plist is missing, or names user with exactly that password."""
        path = self.path(PASSWORDS_FILE)
        try:
            passwords = read_plist(path, None)
        except ValueError as e:
            raise Exit(EX_CONFIG, str(e))
        if passwords is None:
            return True
        if not isinstance(passwords, dict):
            raise Exit(EX_CONFIG, f"{path}: not a dictionary")
        expected = passwords.get(user)
        return isinstance(expected, str) and given is not None and given == expected


def emit(output, error):
    if output:
        sys.stdout.write(output)
        sys.stdout.flush()
    if error:
        sys.stderr.write(error)
        sys.stderr.flush()


def read_password_lines(count):
    """count lines of standard input, each without its line end; None for each one missing."""
    lines = []
    for _ in range(count):
        raw = sys.stdin.buffer.readline()
        if not raw:
            lines.append(None)
            continue
        text = raw.decode("utf-8", "surrogateescape")
        lines.append(text[:-1] if text.endswith("\n") else text)
    return lines


def read_plist(path, missing):
    """The plist in path, or missing when there is no file; ValueError when it can't be read."""
    try:
        with open(path, "rb") as f:
            return plistlib.load(f)
    except FileNotFoundError:
        return missing
    except Exception as e:
        raise ValueError(f"{path}: {e}")


def write_atomically(path, data, mode=0o644):
    directory = os.path.dirname(path)
    os.makedirs(directory, exist_ok=True)
    fd, temporary = tempfile.mkstemp(dir=directory, prefix="." + os.path.basename(path) + ".")
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(data)
            f.flush()
            os.fsync(f.fileno())
        os.chmod(temporary, mode)
        os.replace(temporary, path)
    except BaseException:
        with contextlib.suppress(OSError):
            os.unlink(temporary)
        raise


def write_plist(path, value):
    write_atomically(path, plistlib.dumps(value, fmt=plistlib.FMT_XML, sort_keys=False))


@contextlib.contextmanager
def locked(directory):
    """Holds an exclusive lock on the directory itself, so the state files in it change one
    tool at a time without lock files of their own."""
    os.makedirs(directory, exist_ok=True)
    fd = os.open(directory, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        yield
    finally:
        os.close(fd)


def run(name, argv, work):
    """main() of a stand-in: work(tool) returns the exit status (None: 0) or raises Exit."""
    if argv[:1] == ["--help"]:
        sys.stdout.write(sys.modules["__main__"].__doc__)
        return 0
    try:
        tool = Tool(name, argv)
        status = tool.begin()
        if status is not None:
            return status
        status = work(tool)
        return 0 if status is None else status
    except Exit as e:
        if str(e):
            sys.stderr.write(f"{name}: {e}\n")
        return e.status


# ---- processes: the sandbox's velm-simd, shown by ps as velmd ----

SIMD_PROGRAM = "velm-simd"
VELMD_COMMAND = "/usr/sbin/velmd"
SVCLOAD_STATE = "sim/tools/svcload.state"


def _proc_text(pid, name):
    with open(f"/proc/{pid}/{name}", "rb") as f:
        return f.read()


def process_alive(pid):
    """There, and no zombie: a stopped daemon that its parent has not reaped yet is gone."""
    try:
        stat = _proc_text(pid, "stat").decode("utf-8", "replace")
    except OSError:
        return False
    state = stat[stat.rfind(")") + 2:][:1]
    return state not in ("Z", "X", "")


def simd_processes(root):
    """[(pid, argv, cwd)] of the living velm-simd processes serving root."""
    want = os.path.realpath(root)
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        pid = int(entry)
        try:
            argv = [a.decode("utf-8", "surrogateescape")
                    for a in _proc_text(pid, "cmdline").split(b"\0")[:-1]]
            if not argv or os.path.basename(argv[0]) != SIMD_PROGRAM or "--root" not in argv:
                continue
            cwd = os.readlink(f"/proc/{pid}/cwd")
        except OSError:
            continue
        at = argv.index("--root")
        if at + 1 >= len(argv):
            continue
        if os.path.realpath(os.path.join(cwd, argv[at + 1])) != want:
            continue
        if process_alive(pid):
            found.append((pid, argv, cwd))
    return sorted(found)


def read_svcload_state(tool):
    try:
        state = read_plist(tool.path(SVCLOAD_STATE), {})
    except ValueError as e:
        tool.complain(str(e))
        state = {}
    return state if isinstance(state, dict) else {}


def write_svcload_state(tool, state):
    write_plist(tool.path(SVCLOAD_STATE), state)
