"""network/dns/resolver: the host's resolver configuration, /etc/resolv.conf.

Value: {"servers": ["192.0.2.1", ...], "search": ["example.com", ...]}.
"""

import qenplugin

RESOLV_CONF = "/etc/resolv.conf"
MAX_SERVERS = 3        # the resolver reads no more than three
MAX_SEARCH = 6
MAX_SEARCH_LENGTH = 256
HEADER = "# Written by the configuration manager; edits are replaced.\n"


def _read():
    servers, search = [], []
    try:
        with open(qenplugin.HostPath(RESOLV_CONF)) as stream:
            lines = stream.read().splitlines()
    except FileNotFoundError:
        lines = []
    for line in lines:
        words = line.split()
        if not words or words[0].startswith(("#", ";")):
            continue
        if words[0] == "nameserver" and len(words) > 1:
            servers.append(words[1])
        elif words[0] in ("search", "domain"):
            search = words[1:]
    return {"servers": servers, "search": search}


def _write(value):
    text = HEADER
    text += "".join("nameserver %s\n" % s for s in value.get("servers", []))
    if value.get("search"):
        text += "search %s\n" % " ".join(value["search"])
    qenplugin.WriteHostFile(RESOLV_CONF, text)  # readers never see half a file


def extract(call):
    for object_id in call.request.GetCSOIdsForExtract():
        call.result.AddObject(object_id, _read())


def apply(call):
    for item in call.request.GetData():
        value = {"servers": [], "search": []} if item.operation == "DELETE" else item.object.GetValue()
        _write(value)
        # What the host now has is the key's current value.
        call.store.SetObject(item.object.GetConfigStoreObjectId(), value)


def impact(call):
    # The resolver rereads its file on every lookup: no restart, no reboot.
    for item in call.request.GetData():
        call.result.AddImpact(item.object.GetConfigStoreObjectId(), qenplugin.IMPACT_NONE)


def validate(call):
    import ipaddress
    for item in call.request.GetData():
        value = item.object.GetValue()
        base = "/network/dns/resolver"
        servers = value.get("servers", [])
        search = value.get("search", [])
        if len(servers) > MAX_SERVERS:
            call.result.AddError(base + "/servers", "corvane.qen.settings.resolver.too-many-servers",
                                 [str(len(servers)), str(MAX_SERVERS)])
        for n, server in enumerate(servers):
            try:
                ipaddress.ip_address(server)
            except ValueError:
                call.result.AddError("%s/servers/%d" % (base, n),
                                     "corvane.qen.settings.resolver.invalid-server", [server])
            if server in servers[:n]:
                call.result.AddError("%s/servers/%d" % (base, n),
                                     "corvane.qen.settings.resolver.duplicate-server", [server])
        if search and not servers:
            call.result.AddError(base + "/search", "corvane.qen.settings.resolver.search-without-servers", [])
        if len(search) > MAX_SEARCH or len(" ".join(search)) > MAX_SEARCH_LENGTH:
            call.result.AddError(base + "/search", "corvane.qen.settings.resolver.search-too-long",
                                 [str(MAX_SEARCH), str(MAX_SEARCH_LENGTH)])
