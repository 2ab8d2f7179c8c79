"""Plugin SDK for Python configuration plugins.

A plugin is the module ``plugin.py`` beside its manifest. The runner imports it
and calls ``apply(call)``, ``impact(call)``, ``extract(call)`` or
``validate(call)`` with a :class:`Call` that carries the request (getters),
the result to fill and access to the host. See docs/plugins.md.

Only standard-library modules that the runner loads anyway are imported here;
the store module (sqlite3) is imported on first use.
"""

from .host import HostPath, HostRoot, RemoveHostFile, WriteHostFile
from .request import (CachedDriftObject, ConfigStoreObject, ConfigStoreObjectId,
                      DesiredConfigInput, DriftObject, PluginRequest, RequestError)
from .results import (ApplyResult, ErrorInfo, ExtractResult, ImpactResult, PluginError,
                      ValidationResult, IMPACT_NONE, IMPACT_MAINTENANCE_MODE, IMPACT_REBOOT)


class Call:
    """One plugin call: the request, the result to fill, the host."""

    def __init__(self, request, result):
        self.request = request
        self.result = result
        self._store = None

    @property
    def operation(self):
        return self.request.GetType()

    @staticmethod
    def HostPath(logical):
        return HostPath(logical)

    @property
    def store(self):
        """The host's configuration store (opened on first use)."""
        if self._store is None:
            from .store import ConfigStore
            self._store = ConfigStore()
        return self._store


__all__ = [
    "ApplyResult", "CachedDriftObject", "Call", "ConfigStoreObject", "ConfigStoreObjectId",
    "DesiredConfigInput", "DriftObject", "ErrorInfo", "ExtractResult", "HostPath", "HostRoot",
    "ImpactResult", "PluginError", "PluginRequest", "RemoveHostFile", "RequestError",
    "ValidationResult", "WriteHostFile",
    "IMPACT_NONE", "IMPACT_MAINTENANCE_MODE", "IMPACT_REBOOT",
]
