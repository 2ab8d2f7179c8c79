"""qen/network/management: the management interface, read by the network
service from /etc/corvane/network/management.conf.

Value: {"address": "10.0.0.21/24", "gateway": "10.0.0.1", "vlan": 12,
"ipv6": false}. The network service reads the file when the interface comes
up; switching IPv6 takes a reboot (the key schema says so). Runs after the
virtual switches, which the interface sits on.
"""

import qenplugin

CONFIG = "/etc/corvane/network/management.conf"
HEADER = "# Written by the configuration manager; edits are replaced.\n"


def apply(call):
    for item in call.request.GetData():
        object_id = item.object.GetConfigStoreObjectId()
        if item.operation == "DELETE":
            qenplugin.RemoveHostFile(CONFIG)
            call.store.DeleteObject(object_id)
            continue
        value = item.object.GetValue()
        text = HEADER + "address=%s\n" % value["address"]
        if value.get("gateway"):
            text += "gateway=%s\n" % value["gateway"]
        text += "vlan=%d\nipv6=%s\n" % (value.get("vlan", 0), "on" if value.get("ipv6", False) else "off")
        qenplugin.WriteHostFile(CONFIG, text)
        call.store.SetObject(object_id, value)
