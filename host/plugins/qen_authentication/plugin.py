"""qen/authentication/root: the root account's password hash in /etc/shadow.

Value: {"passwordHash": "$6$salt$hash"}, sensitive: never printed, never in
an error's arguments. DELETE locks the password ("*"). The other accounts'
lines are kept as they are. Applied early in boot (early bootstrap) and at
boot-time apply, so that the host can be logged into before anything else.
"""

import qenplugin

SHADOW = "/etc/shadow"
LOCKED = "*"


def _set_root_hash(password_hash):
    if ":" in password_hash or "\n" in password_hash:
        raise qenplugin.PluginError("corvane.qen.settings.authentication.invalid-hash", [])
    try:
        with open(qenplugin.HostPath(SHADOW)) as stream:
            lines = stream.read().splitlines()
    except FileNotFoundError:
        lines = []
    for n, line in enumerate(lines):
        fields = line.split(":")
        if fields[0] == "root":
            fields += [""] * (9 - len(fields))
            fields[1] = password_hash
            lines[n] = ":".join(fields)
            break
    else:
        lines.insert(0, "root:%s:0:0:99999:7:::" % password_hash)
    qenplugin.WriteHostFile(SHADOW, "\n".join(lines) + "\n", 0o600)


def apply(call):
    for item in call.request.GetData():
        object_id = item.object.GetConfigStoreObjectId()
        if item.operation == "DELETE":
            _set_root_hash(LOCKED)
            call.store.DeleteObject(object_id)
            continue
        value = item.object.GetValue()
        _set_root_hash(value["passwordHash"])
        # What the host now has is the key's current value.
        call.store.SetObject(object_id, value)
