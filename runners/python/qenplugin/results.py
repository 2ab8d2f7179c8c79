"""The four result documents a plugin call writes.

Every result file is one JSON object with an "error" member (the ErrorInfo
form {"msgId", "args", "message"}; an empty msgId means success) plus the
operation's list: "impacts", "objects" or "results". The file is created with
mode 0600: it carries configuration values.
"""

import json
import os

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
            os.unlink(path)
        except FileNotFoundError:
            pass
        fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
        os.fchmod(fd, 0o600)
        with os.fdopen(fd, "w", encoding="utf-8") as stream:
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
