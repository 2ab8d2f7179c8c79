#!/usr/bin/env python3
"""Writes the fuzzers' seed corpora (fuzz/corpus/<target>/) from the sample
host (host/) and the inputs the tests use. Deterministic: run it again after
changing the sample host and commit what changes. Two-part targets (drift,
validator) take "<first>\\0<second>"."""
import glob
import hashlib
import json
import os
import shutil

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HOST = os.path.join(ROOT, "host")
SCHEMAS = os.path.join(HOST, "root/usr/lib/corvane/configstore/schemas")
MODULES = os.path.join(HOST, "root/usr/lib/corvane/configmanager/apply_modules")
UUID = "4c4c4544-0042-3510-8052-b4c04f4a4b32"


def read(path):
    with open(path, "rb") as f:
        return f.read()


def compact(value):
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode()


def sample_documents():
    return {os.path.basename(p)[:-5]: read(p) for p in sorted(glob.glob(os.path.join(HOST, "documents/*.json")))
            if not p.endswith("store-sample.json")}


def host_current():
    return json.loads(read(os.path.join(HOST, "documents/store-sample.json")))["host"]["current"]


def key_schemas():
    return {os.path.relpath(p, SCHEMAS)[:-5].replace("/", "-"): read(p)
            for p in sorted(glob.glob(os.path.join(SCHEMAS, "**/*.json"), recursive=True))}


def test_key_schema(group, key, singleton, extra=None):
    item = {"type": "object", "properties": {"name": {"type": "string"}, "v": {"type": "integer"}}}
    schema = {"component": "test", "group": group, "key": key, "userConfig": "u", "singleton": singleton}
    schema.update(extra or {})
    if singleton:
        schema["schema"] = item
    else:
        schema["instanceId"] = "name"
        schema["schema"] = {"type": "array", "items": item}
    return compact(schema)


def documents():
    seeds = sample_documents()
    current = host_current()
    seeds["current"] = compact({"profile": current})
    seeds["empty-object"] = b"{}"
    seeds["empty-array"] = b"[]"
    seeds["host-sections"] = compact({
        "profile": {"network": {"interfaces": {"nic": [{"name": "nic0", "mtu": 1500}]}}},
        "host-specific": {UUID.upper(): {"network": {"interfaces": {"nic": [{"name": "nic0", "mtu": 9000}]}}}},
        "host-override": {"{" + UUID + "}": {"system": {"time": {"ntp": {"enabled": False, "servers": []}}}}}})
    seeds["delete-default"] = compact({"profile": {"system": {"time": {"timezone": "DELETE_DEFAULT"}}}})
    seeds["wrong-shapes"] = compact({"profile": {"network": [], "system": {"users": {"user": {"name": "x"}}}}})
    seeds["numbers"] = b'{"profile": {"podlet": {"system": {"podlet_daemon": {"pollIntervalSeconds": 1e309, "enabled": -0.0}}}}}'
    seeds["escapes"] = '{"profile": {"network": {"dns": {"resolver": {"search": ["\\u00e9x\\ud83d\\ude00", "a\\u0000b"]}}}}}'.encode()
    seeds["deep"] = b'{"profile": ' + b"[" * 40 + b"]" * 40 + b"}"
    return seeds


def manifests():
    seeds = {os.path.relpath(p, MODULES)[:-len("/manifest.json")].replace("/", "-"): read(p)
             for p in sorted(glob.glob(os.path.join(MODULES, "**/manifest.json"), recursive=True))}
    seeds["v1-apply"] = compact({"type": "python", "apply_group": "network", "boot": False,
                                 "operations": {"op": {"provides": "s", "depends": ["t"]}}})
    seeds["v2-impact-cache"] = compact({"version": 2, "type": "python",
                                        "impact": {"supports": True, "cache_drift": ["C:G:K"]}})
    seeds["v3-everything"] = compact({
        "version": 3, "type": "c++", "accepts": ["test:net:a", "test:net:list"],
        "apply": {"apply_group": "network", "boot": True,
                  "REMEDIATE": {"provides": "alpha", "depends": ["beta", "gamma"]}},
        "extract": {"supports": True, "accepts": ["test:net:a"]},
        "impact": {"supports": True, "cache_drift": ["test:net:list"]},
        "validation": {"supports": True, "references": ["test:sys:c"]}})
    seeds["v3-cycle"] = compact({"version": 3, "type": "python", "accepts": ["C:G:K"],
                                 "apply": {"apply_group": "g", "boot": False,
                                           "REMEDIATE": {"provides": "a", "depends": ["a"]}}})
    seeds["version-4"] = b'{"version": 4}'
    seeds["short-object"] = b'{"version": 3, "type": "python", "accepts": ["C::G"]}'
    return seeds


def entry(component, group, key, instance, config, **extra):
    e = {"component": component, "group": group, "key": key, "instanceId": instance, "config": compact(config).decode()}
    e.update(extra)
    return component + group + key + instance, e


def request(operation, **members):
    doc = {"key": "fault", "version": 3, "type": operation, "module": "libfault.so"}
    doc.update(members)
    doc.update({"taskId": "task-7", "clusterContext": "ok"})
    return compact(doc)


def requests():
    resolver = entry("network", "dns", "resolver", "", {"servers": ["192.0.2.1"]}, operation="SET",
                     drift=compact({"servers": "SET"}).decode())
    mount_a = entry("storage", "nfs", "mount", "a", {"name": "a"}, operation="ADD")
    mount_b = entry("storage", "nfs", "mount", "b", {"name": "b"}, operation="DELETE",
                    cachedDrift={"operation": "DELETE", "drift": compact({"INSTANCEID": "b", "DRIFTOP": "DELETE"}).decode()})
    return {
        "apply": request("APPLY", data=dict([resolver, mount_a, mount_b])),
        "impact": request("IMPACT", data=dict([resolver])),
        "extract": request("EXTRACT", csoIds=[{"component": "network", "group": "dns", "key": "resolver"},
                                              {"component": "system", "group": "time", "key": "ntp"}]),
        "validate": request("VALIDATE", data=dict([mount_a]), references=dict([resolver])),
        "empty-data": request("APPLY", data={}),
        "no-members": b"{}",
        "config-not-json": request("APPLY", data={"x": {"component": "c", "group": "g", "key": "k",
                                                        "instanceId": "", "config": "{not json"}}),
    }


def results():
    ok = {"msgId": "", "args": []}
    failed = {"msgId": "corvane.qen.settings.test.apply-failed", "args": ["alpha", "detail"], "message": "Resolver"}
    return {
        "apply-ok": compact({"error": ok}),
        "apply-failed": compact({"error": failed}),
        "impact": compact({"error": ok, "impacts": [
            {"impact": 2, "component": "system", "group": "boot", "key": "kernel", "instanceId": "", "quickBootSupported": False},
            {"impact": 1, "component": "network", "group": "interfaces", "key": "nic", "instanceId": "nic0"}]}),
        "extract": compact({"error": ok, "objects": [
            {"component": "network", "group": "dns", "key": "resolver", "instanceId": "", "value": {"servers": ["10.0.0.53"]}},
            {"component": "network", "group": "interfaces", "key": "nic", "instanceId": "nic0",
             "value": {"name": "nic0", "mtu": 1500}}]}),
        "validate": compact({"error": ok, "results": [
            {"name": "/network/dns/resolver", "errors": [failed, ok]}]}),
        "truncated": b'{"error": {"msgId": ',
        "huge-padding": compact({"error": ok, "padding": "x" * 200}),
    }


def validator_pairs():
    current = host_current()
    seeds = {}
    for name, text in key_schemas().items():
        schema = json.loads(text)
        value = current.get(schema["component"], {}).get(schema["group"], {}).get(schema["key"])
        if value is None:
            value = [] if not schema["singleton"] else {}
        seeds[name] = compact(schema["schema"]) + b"\0" + compact(value)
    seeds["ref-oneof"] = compact({
        "definitions": {"port": {"type": "integer", "minimum": 1, "maximum": 65535}},
        "type": "object", "discriminator": "kind",
        "oneOf": [{"properties": {"kind": {"enum": ["tcp"]}, "port": {"$ref": "#/definitions/port"}}},
                  {"properties": {"kind": {"enum": ["udp"]}}}]}) + b"\0" + compact({"kind": "tcp", "port": 70000})
    seeds["keywords"] = compact({
        "type": "object", "patternProperties": {"^x-": {"type": "string", "maxLength": 3}},
        "additionalProperties": False, "dependencies": {"a": ["b"]}, "minProperties": 1,
        "properties": {"a": {"type": "array", "items": [{"type": "number", "multipleOf": 0.5}],
                             "additionalItems": False, "uniqueItems": True},
                       "n": {"not": {"type": "null"}, "anyOf": [{"type": "string"}, {"type": "integer"}]}}}) + \
        b"\0" + compact({"a": [1.5, 2], "x-y": "long", "n": None})
    seeds["document"] = compact({"type": "object", "properties": {"profile": {"type": "object", "properties": {
        "c": {"type": "object", "properties": {"g": {"type": "object", "properties": {
            "k": {"type": "object", "required": ["v"]}}}}}}}}}) + b"\0" + compact({"profile": {"c": {"g": {"k": {}, "x": 1}}}})
    return seeds


def drift_pairs():
    current = compact({"profile": host_current()})
    seeds = {name: text + b"\0" + current for name, text in sample_documents().items()}
    seeds["self"] = current + b"\0" + current
    seeds["against-empty"] = current + b"\0" + b"{}"
    seeds["generated-ids"] = compact({"network": {"hosts": {"entry": [{"address": "10.0.0.10", "names": ["build"]},
                                                                      {"address": "10.0.0.11"}]}}}) + b"\0" + current
    seeds["user-instances"] = compact({"profile": {"system": {"users": {"user": [
        {"name": "root", "role": "operator", "password": "new"}, {"name": "new", "shell": True}]}}}}) + b"\0" + current
    return seeds


def impact_documents():
    seeds = sample_documents()
    seeds["kernel-iommu"] = compact({"profile": {"system": {"boot": {"kernel": {"iommu": True}}}}})
    seeds["nic-mtu"] = compact({"profile": {"network": {"interfaces": {"nic": [{"name": "nic0", "mtu": 9000}]}}}})
    seeds["delete-everything"] = compact({"profile": {}})
    return seeds


def plan(desired, impact=0, drift=(), host=UUID, fmt=1):
    doc = {"format": fmt, "host": host, "timestamp": "1795360000.123456", "impact": impact, "quickBootStatus": 1,
           "context": "", "driftCache": "", "drift": list(drift), "desired": desired}
    text = json.dumps(doc, indent=3, ensure_ascii=False)
    body = text[:-2] + ",\n   "
    return (body + '"checksum": "' + hashlib.sha256(body.encode()).hexdigest() + '"\n}\n').encode()


def plans():
    desired = json.loads(read(os.path.join(HOST, "documents/desired-apply.json")))
    drift = [{"object": "comp network grp dns key resolver", "operation": "SET", "digest": "0" * 64},
             {"object": "comp system grp time key ntp", "operation": "ADD", "digest": "f" * 64}]
    good = plan(desired, 0, drift)
    return {
        "apply": good,
        "reboot": plan(json.loads(read(os.path.join(HOST, "documents/desired-reboot.json"))), 2),
        "other-host": plan(desired, host="00000000-0000-0000-0000-000000000000"),
        "format-2": plan(desired, fmt=2),
        "edited": good.replace(b'"impact": 0', b'"impact": 1'),
        "cut-short": good[: len(good) // 2],
    }


def boot_records():
    ok = compact({"msgId": "", "args": []}).decode()
    failed = compact({"msgId": "corvane.qen.settings.apply.plugin.unexpected.error", "args": ["alpha"]}).decode()
    return {
        "ok": compact({"errorInfo": ok, "time": "16-11-2026 18-06-40"}),
        "failed": compact({"errorInfo": failed, "time": "29-02-2024 23-59-59"}),
        "time-only": compact({"time": "01-01-1970 00-00-00"}),
        "bad-time": compact({"errorInfo": ok, "time": "99-99-99999 99-99-99"}),
        "empty": b"",
    }


def allowlists():
    telemetry = os.path.join(HOST, "root/usr/lib/corvane/configmanager/telemetry")
    seeds = {os.path.basename(p)[:-5]: read(p) for p in sorted(glob.glob(os.path.join(telemetry, "*.json")))}
    seeds["empty"] = b"[]"
    seeds["not-names"] = b'["a.b.c", 5, null]'
    seeds["object"] = b'{"system.time.ntp": true}'
    return seeds


CORPORA = {
    "document": documents,
    "manifest": manifests,
    "request": requests,
    "result": results,
    "key_schema": lambda: dict(key_schemas(), **{
        "test-singleton": test_key_schema("net", "a", True),
        "test-instances": test_key_schema("net", "list", False),
        "test-reboot": test_key_schema("sys", "k", True, {"rebootRequired": {"operations": ["SET", "ADD", "DELETE"]}}),
        "mismatched": b'{"component": "c", "group": "g", "key": "k", "singleton": true, "schema": {"type": "array"}}',
    }),
    "validator": validator_pairs,
    "drift": drift_pairs,
    "impact": impact_documents,
    "plan": plans,
    "boot_record": boot_records,
    "allowlist": allowlists,
}


def main():
    for target, make in CORPORA.items():
        out = os.path.join(ROOT, "fuzz/corpus", target)
        shutil.rmtree(out, ignore_errors=True)
        os.makedirs(out)
        for name, data in make().items():
            with open(os.path.join(out, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
