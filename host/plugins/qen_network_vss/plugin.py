"""qen/network_vss/switch: one file per virtual switch in
/etc/corvane/network/vss/, read by the switch service at start.

Instance value: {"name": "vss0", "uplinks": ["nic0"], "mtu": 1500}.
"""

import re

import qenplugin

DIRECTORY = "/etc/corvane/network/vss"
HEADER = "# Written by the configuration manager; edits are replaced.\n"
NAME = re.compile(r"^[A-Za-z0-9_-]{1,32}$")  # also keeps the file inside DIRECTORY


def _config(name):
    if not NAME.match(name):
        raise qenplugin.PluginError("corvane.qen.settings.vss.invalid-name", [name])
    return "%s/%s.conf" % (DIRECTORY, name)


def apply(call):
    for item in call.request.GetData():
        object_id = item.object.GetConfigStoreObjectId()
        value = item.object.GetValue()
        config = _config(value.get("name") or object_id.instance)
        if item.operation == "DELETE":
            qenplugin.RemoveHostFile(config)
            call.store.DeleteObject(object_id)
            continue
        text = HEADER + "uplinks=%s\nmtu=%d\n" % (",".join(value.get("uplinks", [])), value.get("mtu", 1500))
        qenplugin.WriteHostFile(config, text)
        call.store.SetObject(object_id, value)
