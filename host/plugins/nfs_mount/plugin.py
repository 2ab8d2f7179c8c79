"""storage/nfs/mount: NFS mounts in /etc/fstab, mounted at /mnt/nfs/<name>.

Instance value: {"name": "backup", "server": "nas.example.com",
"export": "/srv/backup", "readOnly": false}. Lines of other file systems are
kept as they are.
"""

import qenplugin

FSTAB = "/etc/fstab"
MOUNT_BASE = "/mnt/nfs/"
KEY = ("storage", "nfs", "mount")


def _read_lines():
    try:
        with open(qenplugin.HostPath(FSTAB)) as stream:
            return stream.read().splitlines()
    except FileNotFoundError:
        return []


def _parse(line):
    """The mount of an fstab line that we manage, or None."""
    fields = line.split()
    if len(fields) < 4 or fields[0].startswith("#") or fields[2] not in ("nfs", "nfs4"):
        return None
    if not fields[1].startswith(MOUNT_BASE) or ":" not in fields[0]:
        return None
    server, export = fields[0].split(":", 1)
    return {"name": fields[1][len(MOUNT_BASE):], "server": server, "export": export,
            "readOnly": "ro" in fields[3].split(",")}


def _mounts():
    return [m for m in (_parse(line) for line in _read_lines()) if m]


def _line(mount):
    options = "ro" if mount.get("readOnly") else "rw"
    return "%s:%s %s%s nfs %s,_netdev 0 0" % (mount["server"], mount["export"], MOUNT_BASE,
                                              mount["name"], options)


def _write_lines(lines):
    qenplugin.WriteHostFile(FSTAB, "".join(line + "\n" for line in lines))


def extract(call):
    for object_id in call.request.GetCSOIdsForExtract():
        for mount in _mounts():
            instance = qenplugin.ConfigStoreObjectId(object_id.key, object_id.group, object_id.component,
                                                     mount["name"])
            call.result.AddObject(instance, mount)


def apply(call):
    lines = _read_lines()
    applied = []
    for item in call.request.GetData():
        value = item.object.GetValue()
        name = value.get("name") or item.object.GetConfigStoreObjectId().instance
        if "/" in name or name in ("", ".", ".."):
            raise qenplugin.PluginError("corvane.qen.settings.nfs.invalid-name", [name])
        kept = [line for line in lines if (_parse(line) or {}).get("name") != name]
        if item.operation != "DELETE":
            kept.append(_line(dict(value, name=name)))
        lines = kept
        applied.append((item, dict(value, name=name)))
    _write_lines(lines)
    # Recorded once fstab holds every change, so the store never claims a
    # mount the file lacks.
    for item, value in applied:
        object_id = item.object.GetConfigStoreObjectId()
        if item.operation == "DELETE":
            call.store.DeleteObject(object_id)
        else:
            call.store.SetObject(object_id, value)


def impact(call):
    # Adding or removing a mount, or pointing it elsewhere, disturbs what runs
    # on it: maintenance mode. Switching read-only takes a remount only.
    current = {m["name"]: m for m in _mounts()}
    for item in call.request.GetData():
        value = item.object.GetValue()
        name = value.get("name") or item.object.GetConfigStoreObjectId().instance
        old = current.get(name)
        moved = old is None or item.operation in ("ADD", "DELETE") or (
            (old["server"], old["export"]) != (value.get("server"), value.get("export")))
        call.result.AddImpact(item.object.GetConfigStoreObjectId(),
                              qenplugin.IMPACT_MAINTENANCE_MODE if moved else qenplugin.IMPACT_NONE)


def validate(call):
    # Cross-key rule: a mount needs at least one enabled network interface.
    nics = [o.GetValue() for o in call.request.GetReferences()
            if (o.id.component, o.id.group, o.id.key) == ("network", "interfaces", "nic")]
    network = any(n.get("enabled", True) for n in nics)
    seen = {}
    for item in call.request.GetData():
        value = item.object.GetValue()
        name = value.get("name") or item.object.GetConfigStoreObjectId().instance
        base = "/storage/nfs/mount/%s" % name
        if not network:
            call.result.AddError(base, "corvane.qen.settings.nfs.no-network", [name])
        if not str(value.get("export", "")).startswith("/"):
            call.result.AddError(base + "/export", "corvane.qen.settings.nfs.relative-export",
                                 [str(value.get("export", ""))])
        target = (value.get("server"), value.get("export"))
        if target in seen:
            call.result.AddError(base, "corvane.qen.settings.nfs.duplicate-export", [name, seen[target]])
        seen.setdefault(target, name)
