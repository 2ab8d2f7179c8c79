"""demo/app/motd: the text of /etc/motd, through the installed Python SDK."""

import qenplugin


def extract(call):
    try:
        with open(qenplugin.HostPath("/etc/motd")) as stream:
            text = stream.read().rstrip("\n")
    except FileNotFoundError:
        text = ""
    for object_id in call.request.GetCSOIdsForExtract():
        call.result.AddObject(object_id, {"text": text})
