"""Plugin SDK for Python configuration plugins, and the Python runner's work.

A plugin is the module ``plugin.py`` beside its manifest. The runner imports it
and calls ``apply(call)``, ``impact(call)``, ``extract(call)`` or
``validate(call)`` with a :class:`Call` that carries the request (getters),
the result to fill and access to the host. See runners/README.md.

One module rather than several: a runner starts for every call, and each
module imported costs it about half a percent of an interpreter start that
imports json. Besides json, only modules built into the interpreter are
imported here: host access goes through ``posix`` (loaded at start-up) rather
than ``os``, whose import costs about 4% of such a start. The store module
(sqlite3) is imported on first use.

Sections: the host root, the request, the results, the call, the runner.
"""

import errno
import json
import posix
import sys

# The host root of this process -------------------------------------------
#
# Runners start with an empty environment, so the root comes from the
# runner's own location (<root>/usr/lib/corvane/configmanager/bin/<runner>);
# tools may set it explicitly. Logical host paths are mapped below it.

_root = None


def SetHostRoot(root):
    global _root
    _root = root.rstrip("/")


def HostRoot():
    """The physical root, without trailing slash ("" for "/")."""
    if _root is None:
        root = posix.environ.get(b"QEN_HOST_ROOT", b"")
        return root.decode(sys.getfilesystemencoding(), "surrogateescape").rstrip("/")
    return _root


def HostPath(logical):
    """Physical path of a logical absolute path (relative paths unchanged)."""
    if not logical.startswith("/"):
        return logical
    return HostRoot() + logical


_S_IFDIR = 0o040000
_S_IFREG = 0o100000


def _has_type(path, kind):
    """Whether `path` exists with the file type `kind` (_S_IFDIR, _S_IFREG)."""
    try:
        return posix.stat(path).st_mode & 0o170000 == kind
    except (OSError, ValueError):
        return False


def _make_dirs(path):
    """Creates the directory `path` and its missing parents."""
    try:
        posix.mkdir(path)
    except FileNotFoundError:
        parent = path.rpartition("/")[0]
        if not parent:
            raise
        _make_dirs(parent)
        try:
            posix.mkdir(path)
        except FileExistsError:
            pass  # created meanwhile
    except FileExistsError:
        if not _has_type(path, _S_IFDIR):
            raise


def WriteHostFile(logical, text, mode=0o644):
    """Replaces the host file at `logical` by `text` at once: written beside it
    with exactly `mode`, then renamed over it, so a reader never sees a part.
    Missing directories are created."""
    path = HostPath(logical)
    directory = path.rpartition("/")[0]
    if directory:  # "" is "/" itself
        _make_dirs(directory)
    temporary = path + ".new"
    fd = posix.open(temporary, posix.O_WRONLY | posix.O_CREAT | posix.O_TRUNC, mode)
    with open(fd, "w") as stream:
        stream.write(text)
    posix.chmod(temporary, mode)  # open's mode went through the umask
    posix.replace(temporary, path)


def RemoveHostFile(logical):
    """Removes the host file at `logical`; a missing file is no error."""
    try:
        posix.remove(HostPath(logical))
    except FileNotFoundError:
        pass


# The request document of a plugin call, runner side ------------------------
#
# Mirrors the library's PluginRequest getters and their messages. The request
# may repeat member names in "data" and "references" (two inputs for one
# object), so objects are parsed keeping every member in document order.

class RequestError(RuntimeError):
    """The request is missing a member or has one of the wrong type."""


class _Members(dict):
    """A JSON object that also keeps every (name, value) pair in order."""

    def __init__(self, pairs):
        super().__init__(pairs)
        self.pairs = pairs


class ConfigStoreObjectId:
    def __init__(self, key, group, component, instance=""):
        self.key = key
        self.group = group
        self.component = component
        self.instance = instance

    def GetKey(self):
        return self.key

    def GetGroup(self):
        return self.group

    def GetComponent(self):
        return self.component

    def GetInstanceId(self):
        return self.instance

    def __eq__(self, other):
        return (isinstance(other, ConfigStoreObjectId) and self.key == other.key
                and self.group == other.group and self.component == other.component
                and self.instance == other.instance)

    def __hash__(self):
        return hash((self.component, self.group, self.key, self.instance))

    def __repr__(self):
        text = "comp %s grp %s key %s" % (self.component, self.group, self.key)
        return text + (" id %s" % self.instance if self.instance else "")


class ConfigStoreObject:
    """A configuration object: identifier, data text (JSON) and ordinal."""

    def __init__(self, object_id, data, ordinal=0):
        self.id = object_id
        self.data = data
        self.ordinal = ordinal

    def GetConfigStoreObjectId(self):
        return self.id

    def GetSerializedData(self):
        return self.data

    def GetOrdinal(self):
        return self.ordinal

    def GetValue(self):
        """The data parsed as JSON."""
        return json.loads(self.data)


class DriftObject:
    """The drift found for an object, as the library sent it (text)."""

    def __init__(self, object_id, text, operation):
        self.id = object_id
        self.text = text
        self.operation = operation

    def GetConfigStoreObjectId(self):
        return self.id

    def GetOperation(self):
        return self.operation

    def ToString(self):
        return self.text

    def GetValue(self):
        """The drift text parsed as JSON."""
        return json.loads(self.text)


class CachedDriftObject:
    def __init__(self, drift, operation):
        self.drift = drift
        self.operation = operation


class DesiredConfigInput:
    def __init__(self, obj, drift, operation, cached_drift):
        self.object = obj
        self.drift = drift
        self.operation = operation
        self.cachedDrift = cached_drift


def _string(entry, name):
    value = entry.get(name) if isinstance(entry, dict) else None
    if not isinstance(value, str):
        raise RequestError('JSON error: member "%s" is missing or not a string' % name)
    return value


def _object_id(entry):
    return ConfigStoreObjectId(_string(entry, "key"), _string(entry, "group"),
                               _string(entry, "component"), _string(entry, "instanceId"))


def _entries(value, name):
    if not isinstance(value, _Members):
        raise RequestError('JSON error: "%s" is not an object' % name)
    return value.pairs


class _Ordinals:
    """Numbers the objects of one key 0, 1, 2 in document order."""

    def __init__(self):
        self.counters = {}

    def Next(self, object_id):
        name = "%s:%s:%s" % (object_id.component, object_id.group, object_id.key)
        n = self.counters.get(name, 0)
        self.counters[name] = n + 1
        return n


class PluginRequest:
    def __init__(self, document=None):
        self.document = document

    @classmethod
    def Load(cls, path):
        try:
            with open(path, "rb") as stream:
                document = json.load(stream, object_pairs_hook=_Members)
        except (OSError, ValueError, RecursionError):
            raise RuntimeError("Failed to load plugin input json.") from None
        return cls(document)

    def _doc(self):
        if not isinstance(self.document, dict):
            raise RequestError("JSON error: the request is not an object")
        return self.document

    def _get(self, name, missing, kind=str, kind_name="string"):
        doc = self._doc()
        if name not in doc:
            raise RequestError(missing)
        value = doc[name]
        if not isinstance(value, kind) or isinstance(value, bool):
            raise RequestError('JSON error: "%s" is not a %s' % (name, kind_name))
        return value

    def GetVersion(self):
        return self._get("version", "The PluginRequest structure does not contain version.", int, "integer")

    def GetTaskId(self):
        return self._get("taskId", "The PluginRequest structure does not contain taskId")

    def GetId(self):
        return self._get("key", "The PluginRequest structure does not contain key")

    def GetModule(self):
        return self._get("module", "The PluginRequest structure does not contain module")

    def GetType(self):
        return self._get("type", "The PluginRequest structure does not contain type")

    def GetClusterContext(self):
        return self._get("clusterContext", "The PluginRequest structure does not contain context")

    def GetData(self):
        doc = self._doc()
        if "data" not in doc:
            raise RequestError("The PluginRequest structure does not contain data")
        ordinals = _Ordinals()
        inputs = []
        for _, entry in _entries(doc["data"], "data"):
            operation = _string(entry, "operation") if "operation" in entry else ""
            object_id = _object_id(entry)
            obj = ConfigStoreObject(object_id, _string(entry, "config"), ordinals.Next(object_id))
            drift = DriftObject(object_id, _string(entry, "drift"), operation) if "drift" in entry else None
            cached = None
            if "cachedDrift" in entry:
                c = entry["cachedDrift"]
                if not isinstance(c, dict):
                    raise RequestError('JSON error: "cachedDrift" is not an object')
                cached_op = _string(c, "operation")
                cached_drift = DriftObject(object_id, _string(c, "drift"), cached_op) if "drift" in c else None
                cached = CachedDriftObject(cached_drift, cached_op)
            inputs.append(DesiredConfigInput(obj, drift, operation, cached))
        return inputs

    def GetReferences(self):
        doc = self._doc()
        if "references" not in doc:
            return []
        ordinals = _Ordinals()
        objects = []
        for _, entry in _entries(doc["references"], "references"):
            object_id = _object_id(entry)
            objects.append(ConfigStoreObject(object_id, _string(entry, "config"), ordinals.Next(object_id)))
        return objects

    def GetCSOIdsForExtract(self):
        doc = self._doc()
        if "csoIds" not in doc:
            raise RequestError("The Extract PluginRequest structure does not contain csoIds.")
        ids = doc["csoIds"]
        if not isinstance(ids, list):
            raise RequestError("The Extract PluginRequest's csoIds should be a list.")
        result = []
        for element in ids:
            if not isinstance(element, dict) or not all(
                    isinstance(element.get(m), str) for m in ("key", "group", "component")):
                raise RequestError("The Extract PluginRequest format is invalid")
            result.append(ConfigStoreObjectId(element["key"], element["group"], element["component"]))
        return result


# The four result documents a plugin call writes ----------------------------
#
# Every result file is one JSON object with an "error" member (the ErrorInfo
# form {"msgId", "args", "message"}; an empty msgId means success) plus the
# operation's list: "impacts", "objects" or "results". The file is created
# with mode 0600: it carries configuration values.

IMPACT_NONE = 0
IMPACT_MAINTENANCE_MODE = 1
IMPACT_REBOOT = 2


class ErrorInfo:
    def __init__(self, msg_id="", args=(), message=""):
        self.msgId = msg_id
        self.args = [str(a) for a in args]
        self.message = message

    def IsEmpty(self):
        return not self.msgId

    def ToJson(self):
        return {"msgId": self.msgId, "args": self.args, "message": self.message}


class PluginError(Exception):
    """Raised by a plugin to fail its call with a message identifier."""

    def __init__(self, msg_id, args=(), message=""):
        super().__init__(msg_id)
        self.info = ErrorInfo(msg_id, args, message)


def _id_members(object_id):
    return {"component": object_id.component, "group": object_id.group,
            "key": object_id.key, "instanceId": object_id.instance}


class ApplyResult:
    def __init__(self):
        self.error = ErrorInfo()

    def ToJson(self):
        return {"error": self.error.ToJson()}

    def Save(self, path):
        text = json.dumps(self.ToJson(), separators=(",", ":"))
        # A new owner-only file: whatever is at the path goes first, and a
        # link planted in between fails the call instead of being followed.
        try:
            posix.unlink(path)
        except FileNotFoundError:
            pass
        fd = posix.open(path, posix.O_WRONLY | posix.O_CREAT | posix.O_EXCL | posix.O_NOFOLLOW | posix.O_CLOEXEC,
                        0o600)
        posix.fchmod(fd, 0o600)
        with open(fd, "w", encoding="utf-8") as stream:
            stream.write(text)


class ImpactResult(ApplyResult):
    def __init__(self):
        super().__init__()
        self.impacts = []

    def AddImpact(self, object_id, impact, quick_boot_supported=True):
        if impact not in (IMPACT_NONE, IMPACT_MAINTENANCE_MODE, IMPACT_REBOOT):
            raise ValueError("impact must be 0, 1 or 2, not %r" % (impact,))
        entry = {"impact": impact}
        entry.update(_id_members(object_id))
        entry["quickBootSupported"] = bool(quick_boot_supported)
        self.impacts.append(entry)

    def ToJson(self):
        return {"error": self.error.ToJson(), "impacts": self.impacts}


class ExtractResult(ApplyResult):
    def __init__(self):
        super().__init__()
        self.objects = []

    def AddObject(self, object_id, value):
        """`value`: the object's configuration as a JSON-compatible value."""
        entry = _id_members(object_id)
        entry["value"] = value
        self.objects.append(entry)

    def ToJson(self):
        return {"error": self.error.ToJson(), "objects": self.objects}


class ValidationResult(ApplyResult):
    def __init__(self):
        super().__init__()
        self.results = []
        self._by_name = {}

    def AddError(self, name, msg_id, args=()):
        """Records a validation error of the object (or property path) `name`."""
        entry = self._by_name.get(name)
        if entry is None:
            entry = {"name": name, "errors": []}
            self._by_name[name] = entry
            self.results.append(entry)
        entry["errors"].append(ErrorInfo(msg_id, args).ToJson())

    def ToJson(self):
        return {"error": self.error.ToJson(), "results": self.results}


RESULTS = {"APPLY": ApplyResult, "IMPACT": ImpactResult, "EXTRACT": ExtractResult,
           "VALIDATE": ValidationResult}


class Call:
    """One plugin call: the request, the result to fill, the host."""

    def __init__(self, request, result):
        self.request = request
        self.result = result
        self._store = None

    @property
    def operation(self):
        return self.request.GetType()

    @staticmethod
    def HostPath(logical):
        return HostPath(logical)

    @property
    def store(self):
        """The host's configuration store (opened on first use)."""
        if self._store is None:
            from .store import ConfigStore
            self._store = ConfigStore()
        return self._store


# The runner ------------------------------------------------------------------
#
# bin/py_plugin_runner finds the host root and calls _run(). The work lives
# here so that it is loaded from the bytecode cache: the runner's own script
# is compiled from source on every call.

_INPUT = "/var/corvane/lifecycle/cm-plugin-input.json"
_OUTPUT = "/var/corvane/lifecycle/cm-plugin-output.json"
_MODULES = "/usr/lib/corvane/configmanager/apply_modules"
_FUNCTIONS = {"APPLY": "apply", "IMPACT": "impact", "EXTRACT": "extract", "VALIDATE": "validate"}


def _fail(code, text):
    sys.stderr.write("py_plugin_runner: %s\n" % text)
    # An exit status holds 8 bits: a larger number must not wrap to success.
    return code if 0 < code < 256 else errno.ENOTRECOVERABLE


def _run(root):
    """One call below the host root `root`; returns the exit status."""
    SetHostRoot(root)
    try:
        request = PluginRequest.Load(HostPath(_INPUT))
        operation = request.GetType()
        plugin_id = request.GetId()
    except RuntimeError as e:
        return _fail(errno.EINVAL, str(e))
    if operation not in _FUNCTIONS:
        return _fail(errno.EINVAL, "unknown operation %r" % operation)

    # The plugin's directory mirrors its identifier; ".." would leave the
    # module directory.
    parts = plugin_id.split(":")
    if not plugin_id or any(p in ("", ".", "..") or "/" in p for p in parts):
        return _fail(errno.EINVAL, "invalid plugin identifier %r" % plugin_id)
    plugin_dir = HostPath(_MODULES + "/" + "/".join(parts))
    if not _has_type(plugin_dir + "/plugin.py", _S_IFREG):
        return _fail(errno.ENOENT, "plugin %s has no module %s/plugin.py" % (plugin_id, plugin_dir))

    result = RESULTS[operation]()
    try:
        sys.path.insert(0, plugin_dir)
        import plugin
        function = getattr(plugin, _FUNCTIONS[operation], None)
        if function is None:
            return _fail(errno.ENOSYS, "plugin %s does not provide %s()" % (plugin_id, _FUNCTIONS[operation]))
        status = function(Call(request, result))
        # Like a C++ entry point, a plugin may end the call with an error number.
        if isinstance(status, int) and not isinstance(status, bool) and status != 0:
            return _fail(status, "plugin %s failed with status %d" % (plugin_id, status))
    except PluginError as e:
        result.error = e.info
    except Exception:
        import traceback
        traceback.print_exc()
        return _fail(errno.ENOTRECOVERABLE, "plugin %s raised an exception" % plugin_id)

    try:
        result.Save(HostPath(_OUTPUT))
    except (TypeError, ValueError) as e:
        return _fail(errno.ENOTRECOVERABLE, "plugin %s produced a result that is not JSON: %s" % (plugin_id, e))
    except OSError as e:
        return _fail(errno.EIO, "cannot write the result: %s" % e)
    return 0


__all__ = [
    "ApplyResult", "CachedDriftObject", "Call", "ConfigStoreObject", "ConfigStoreObjectId",
    "DesiredConfigInput", "DriftObject", "ErrorInfo", "ExtractResult", "HostPath", "HostRoot",
    "ImpactResult", "PluginError", "PluginRequest", "RemoveHostFile", "RequestError",
    "ValidationResult", "WriteHostFile",
    "IMPACT_NONE", "IMPACT_MAINTENANCE_MODE", "IMPACT_REBOOT",
]
