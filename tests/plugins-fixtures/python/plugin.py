"""Test plugin: misbehaves on cue. The request's clusterContext names the
behaviour (see tests/plugins-fixtures/README.md); every operation obeys it."""

import json
import os
import sys
import time

import qenplugin

ECHO = "/var/corvane/lifecycle/echo.json"
OUTPUT = "/var/corvane/lifecycle/cm-plugin-output.json"


def _echo(call):
    """Records what the runner handed over, as plain JSON."""
    request = call.request
    seen = {"id": request.GetId(), "type": request.GetType(), "version": request.GetVersion(),
            "taskId": request.GetTaskId(), "context": request.GetClusterContext(),
            "pid": os.getpid(), "environ": dict(os.environ), "argv": sys.argv}
    if request.GetType() in ("APPLY", "IMPACT"):
        seen["data"] = [{
            "id": [i.object.id.component, i.object.id.group, i.object.id.key, i.object.id.instance],
            "config": i.object.GetSerializedData(), "ordinal": i.object.GetOrdinal(),
            "operation": i.operation, "drift": i.drift.ToString() if i.drift else None,
            "cachedDrift": [i.cachedDrift.operation,
                            i.cachedDrift.drift.ToString() if i.cachedDrift.drift else None]
            if i.cachedDrift else None} for i in request.GetData()]
    if request.GetType() == "EXTRACT":
        seen["csoIds"] = [[i.component, i.group, i.key] for i in request.GetCSOIdsForExtract()]
    if request.GetType() == "VALIDATE":
        seen["references"] = [[o.id.key, o.GetOrdinal()] for o in request.GetReferences()]
    with open(qenplugin.HostPath(ECHO), "w") as stream:
        json.dump(seen, stream)


def _behave(call):
    cue = call.request.GetClusterContext()
    verb, _, arg = cue.partition(":")
    if verb == "exit":
        os._exit(int(arg))
    if verb == "signal":
        os.kill(os.getpid(), int(arg))
        time.sleep(60)
    if verb == "sleep":
        while True:
            time.sleep(1)
    if verb == "garbage":
        with open(qenplugin.HostPath(OUTPUT), "w") as stream:
            stream.write('{"error": {"msgId": ')
        os._exit(0)
    if verb == "none":
        os._exit(0)
    if verb == "huge":
        # Megabytes of valid JSON nobody asked for.
        with open(qenplugin.HostPath(OUTPUT), "w") as stream:
            stream.write('{"error": {"msgId": "", "args": []}, "padding": "%s"}' % ("x" * (8 << 20)))
        os._exit(0)
    if verb == "deep":
        # A result nested 100,000 levels deep.
        with open(qenplugin.HostPath(OUTPUT), "w") as stream:
            stream.write('{"error": {"msgId": "", "args": []}, "padding": %s%s}' % ("[" * 100000, "]" * 100000))
        os._exit(0)
    if verb == "noise":
        with open(qenplugin.HostPath(OUTPUT), "wb") as stream:
            stream.write(os.urandom(4 << 20))
        os._exit(0)
    if verb == "error":
        raise qenplugin.PluginError(arg, [call.request.GetId(), "detail"])
    if verb == "raise":
        raise ValueError("the plugin broke")
    if verb == "echo":
        _echo(call)
    if verb == "files":
        # The SDK's host file helpers below the logical directory `arg`.
        qenplugin.WriteHostFile(arg + "/new/deep/first", "one", 0o640)
        qenplugin.WriteHostFile(arg + "/new/deep/first", "two", 0o640)
        qenplugin.WriteHostFile(arg + "/new/second", "three")
        qenplugin.RemoveHostFile(arg + "/old")
        qenplugin.RemoveHostFile(arg + "/never")


def apply(call):
    _behave(call)


def impact(call):
    _behave(call)
    for i in call.request.GetData():
        call.result.AddImpact(i.object.id, qenplugin.IMPACT_MAINTENANCE_MODE, quick_boot_supported=False)


def extract(call):
    _behave(call)
    for n, object_id in enumerate(call.request.GetCSOIdsForExtract()):
        call.result.AddObject(object_id, {"index": n})


def validate(call):
    _behave(call)
    for o in call.request.GetData():
        call.result.AddError("/%s/%s/%s" % (o.object.id.component, o.object.id.group, o.object.id.key),
                             "corvane.test.invalid", [o.object.id.instance])
