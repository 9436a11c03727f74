"""What the library and the server count, as Prometheus reads it."""
import ctypes
import json
import re
from typing import Any, Dict, Iterable, List, Tuple

from zorv._library import lib

_UNITS = {"s": "_seconds", "By": "_bytes"}
Labels = Tuple[Tuple[str, str], ...]


def _name(name: str, unit: str) -> str:
    return re.sub(r"[^a-zA-Z0-9_]", "_", name) + _UNITS.get(unit, "")


def _labels(labels: Iterable[Tuple[str, str]]) -> str:
    # JSON escapes what Prometheus wants escaped: quotes, backslashes, line ends.
    text = ",".join(f"{_name(key, '')}={json.dumps(value, ensure_ascii=False)}"
                    for key, value in labels)
    return f"{{{text}}}" if text else ""


class Telemetry:
    """Adds up the library's batches, of the whole process."""

    def __init__(self) -> None:
        self._counters: Dict[Tuple[str, Labels], float] = {}
        self._gauges: Dict[Tuple[str, Labels], float] = {}
        self._histograms: Dict[Tuple[str, Labels], Dict[str, Any]] = {}
        lib.zorv_telemetry_enable(1)

    def collect(self) -> None:
        """Takes the batch that has been recorded since."""
        size = lib.zorv_telemetry_pending()
        text = ctypes.create_string_buffer(max(size, 1))
        if not size or lib.zorv_telemetry_take(text, size) != size:
            return
        batch = json.loads(text.raw[:size].rstrip(b"\0"))
        for record in batch["counters"]:
            key = self._key(record)
            self._counters[key] = self._counters.get(key, 0) + record["value"]
        for record in batch["gauges"]:
            if record["value"] is not None:
                self._gauges[self._key(record)] = record["value"]
        for record in batch["histograms"]:
            known = self._histograms.setdefault(self._key(record), {
                "bounds": record["bounds"], "buckets": [0] * len(record["buckets"]),
                "count": 0, "sum": 0.0})
            known["buckets"] = [a + b for a, b in zip(known["buckets"], record["buckets"])]
            known["count"] += record["count"]
            known["sum"] += record["sum"]

    @staticmethod
    def _key(record: Dict[str, Any]) -> Tuple[str, Labels]:
        attributes = record.get("attributes") or {}
        return _name(record["name"], record["unit"]), tuple(sorted(attributes.items()))

    def text(self) -> str:
        """Everything so far."""
        lines: "Dict[Tuple[str, str], List[str]]" = {}

        def add(name: str, kind: str, labels: str, value: Any, suffix: str = "") -> None:
            lines.setdefault((name, kind), []).append(f"{name}{suffix}{labels} {value}")

        for (name, labels), value in self._counters.items():
            add(f"{name}_total", "counter", _labels(labels), value)
        for (name, labels), value in self._gauges.items():
            add(name, "gauge", _labels(labels), value)
        for (name, labels), known in self._histograms.items():
            below = 0
            for bound, count in zip([*known["bounds"], "+Inf"], known["buckets"]):
                below += count
                add(name, "histogram", _labels((*labels, ("le", str(bound)))), below, "_bucket")
            add(name, "histogram", _labels(labels), known["sum"], "_sum")
            add(name, "histogram", _labels(labels), known["count"], "_count")
        return "".join(f"# TYPE {name} {kind}\n" + "".join(f"{line}\n" for line in found)
                       for (name, kind), found in lines.items())


def plain(values: Dict[str, Tuple[str, float]]) -> str:
    """Values of the server's own: name, then kind and value."""
    return "".join(f"# TYPE {name} {kind}\n{name} {value}\n"
                   for name, (kind, value) in values.items())
