"""The host's configuration store, for plugins that record what they applied.

Reads and writes the current value of host objects in the store's SQLite
database (table config_object). Writes run in one immediate transaction and
wait up to ten seconds for a concurrent writer. Values are JSON-compatible
Python values.
"""

import json
import os
import sqlite3

from . import HostPath

DATABASE = "/var/lib/corvane/configstore/configstore.db"
DELETE_DEFAULT = "DELETE_DEFAULT"
_WHERE = "scope = 'host' AND component = ? AND grp = ? AND name = ? AND identifier = ?"


def _key(object_id):
    return (object_id.component, object_id.group, object_id.key, object_id.instance)


class ConfigStore:
    def __init__(self):
        path = HostPath(DATABASE)
        if not os.path.exists(path):
            raise RuntimeError("the configuration store is not available: %s" % DATABASE)
        self.connection = sqlite3.connect(path, timeout=10.0, isolation_level=None)

    def close(self):
        self.connection.close()

    def GetObject(self, object_id):
        """The object's current value, or None (no value, or a deleted default)."""
        row = self.connection.execute("SELECT current_value FROM config_object WHERE " + _WHERE,
                                      _key(object_id)).fetchone()
        if row is None or row[0] is None or row[0] == DELETE_DEFAULT:
            return None
        return json.loads(row[0])

    def SetObject(self, object_id, value):
        """Records `value` as the object's current value."""
        text = json.dumps(value, separators=(",", ":"))
        with self._transaction() as db:
            updated = db.execute("UPDATE config_object SET current_value = ? WHERE " + _WHERE,
                                 (text,) + _key(object_id)).rowcount
            if not updated:
                db.execute(
                    "INSERT INTO config_object (scope, component, grp, name, identifier, category,"
                    " default_value, current_value, autoconf_value, ordinal)"
                    " SELECT 'host', ?, ?, ?, ?, 'user', NULL, ?, NULL,"
                    " COALESCE(MAX(ordinal), 0) + 1 FROM config_object",
                    _key(object_id) + (text,))

    def DeleteObject(self, object_id):
        """Removes the object's current value (the row goes when it has no default)."""
        with self._transaction() as db:
            db.execute("DELETE FROM config_object WHERE default_value IS NULL AND " + _WHERE, _key(object_id))
            db.execute("UPDATE config_object SET current_value = NULL WHERE " + _WHERE, _key(object_id))

    def _transaction(self):
        return _Transaction(self.connection)


class _Transaction:
    def __init__(self, connection):
        self.connection = connection

    def __enter__(self):
        self.connection.execute("BEGIN IMMEDIATE")
        return self.connection

    def __exit__(self, kind, value, traceback):
        self.connection.execute("COMMIT" if kind is None else "ROLLBACK")
        return False
