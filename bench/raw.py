"""What was measured, as it was measured: kept beside the tables that are made of it."""

import json

_MEASURED = {}


def keep(section, name, values):
    """Takes note of values, and returns them."""
    _MEASURED.setdefault(section, {})[name] = values
    return values


def write(path):
    path.write_text(json.dumps(_MEASURED, indent=1) + "\n", encoding="utf-8")
