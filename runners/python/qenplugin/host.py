"""The host root of this process.

Runners start with an empty environment, so the root comes from the runner's
own location (<root>/usr/lib/corvane/configmanager/bin/<runner>); tools may set
it explicitly. Logical host paths are mapped below it.
"""

import os

BIN_DIR = "/usr/lib/corvane/configmanager/bin"
_root = None


def RootFromRunner(runner_path):
    """The host root of a runner at `runner_path`; ValueError if misplaced."""
    directory = os.path.dirname(os.path.abspath(runner_path))
    if not directory.endswith(BIN_DIR):
        raise ValueError("runner %s is not installed in %s" % (runner_path, BIN_DIR))
    return directory[:-len(BIN_DIR)]


def SetHostRoot(root):
    global _root
    _root = root.rstrip("/")


def HostRoot():
    """The physical root, without trailing slash ("" for "/")."""
    if _root is None:
        return os.environ.get("QEN_HOST_ROOT", "").rstrip("/")
    return _root


def HostPath(logical):
    """Physical path of a logical absolute path (relative paths unchanged)."""
    if not logical.startswith("/"):
        return logical
    return HostRoot() + logical


def WriteHostFile(logical, text, mode=0o644):
    """Replaces the host file at `logical` by `text` at once: written beside it
    with exactly `mode`, then renamed over it, so a reader never sees a part.
    Missing directories are created."""
    path = HostPath(logical)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    temporary = path + ".new"
    fd = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode)
    with os.fdopen(fd, "w") as stream:
        stream.write(text)
    os.chmod(temporary, mode)  # open's mode went through the umask
    os.replace(temporary, path)


def RemoveHostFile(logical):
    """Removes the host file at `logical`; a missing file is no error."""
    try:
        os.remove(HostPath(logical))
    except FileNotFoundError:
        pass
