"""The request document of a plugin call, runner side.

Mirrors the library's PluginRequest getters and their messages. The request
may repeat member names in "data" and "references" (two inputs for one
object), so objects are parsed keeping every member in document order.
"""

import json


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
