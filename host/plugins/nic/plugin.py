"""network/interfaces/nic: one file per interface in /etc/network/interfaces.d/.

Instance value: {"name": "eth0", "mtu": 1500, "enabled": true}. The key has
no extract plugin: what was applied is recorded in the store as the
instance's current value.
"""

import re

import qenplugin

DIRECTORY = "/etc/network/interfaces.d"
NAME = re.compile(r"^[A-Za-z0-9_.:-]{1,15}$")  # what the kernel accepts as an interface name


def _path(name):
    """The interface file's logical path."""
    if not NAME.match(name) or name in (".", ".."):
        raise qenplugin.PluginError("corvane.qen.settings.nic.invalid-name", [name])
    return "%s/%s" % (DIRECTORY, name)


def apply(call):
    for item in call.request.GetData():
        object_id = item.object.GetConfigStoreObjectId()
        value = item.object.GetValue()
        name = value.get("name") or object_id.instance
        path = _path(name)
        if item.operation == "DELETE":
            qenplugin.RemoveHostFile(path)
            call.store.DeleteObject(object_id)
            continue
        text = "# Written by the configuration manager; edits are replaced.\n"
        if value.get("enabled", True):
            text += "auto %s\n" % name
        text += "iface %s inet manual\n    mtu %d\n" % (name, value.get("mtu", 1500))
        qenplugin.WriteHostFile(path, text)
        call.store.SetObject(object_id, value)
