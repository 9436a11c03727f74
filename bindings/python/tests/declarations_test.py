"""The declarations for ctypes say what the header says."""
import ctypes
import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

from zorv import _engine, _library, face, frame

HEADER = Path(os.environ["ZORV_HEADER"])
PLAIN = {"void": None, "int": ctypes.c_int, "float": ctypes.c_float, "double": ctypes.c_double,
         "size_t": ctypes.c_size_t, "uint64_t": ctypes.c_uint64}
CALLBACKS = {"zorv_log_callback": _library.LOG_CALLBACK,
             "zorv_frame_callback": _library.FRAME_CALLBACK}


def ctypes_of(declaration):
    """Of "const char* name" or "const char*"."""
    kind, pointer = re.fullmatch(r"(?:const )?(\w+) ?(\**) ?\w*", declaration.strip()).groups()
    if pointer:
        return ctypes.c_char_p if kind == "char" else ctypes.c_void_p
    return CALLBACKS.get(kind) or PLAIN[kind]


class Declarations(unittest.TestCase):
    text = re.sub(r"/\*.*?\*/", "", HEADER.read_text(), flags=re.S)

    def test_functions(self):
        for name, (result, *arguments) in _library.FUNCTIONS.items():
            with self.subTest(name):
                found = re.search(rf"ZORV_API ([\w ]+\**) ?{name}\(([^;]*)\);", self.text)
                declared = re.sub(r"void \(\*(\w+)\)\([^)]*\)", r"zorv_log_callback \1",
                                  " ".join(found[2].split()))
                parameters = [] if declared == "void" else declared.split(",")
                self.assertEqual([ctypes_of(p) for p in parameters], arguments)
                self.assertEqual(ctypes_of(found[1]), result)

    def test_records_and_constants(self):
        checks = [(f"sizeof({name})", ctypes.sizeof(record))
                  for name, record in _library.RECORDS.items()]
        for name, record in _library.RECORDS.items():
            for field, kind, *_ in record._fields_:
                checks += [(f"offsetof({name}, {field})", getattr(record, field).offset),
                           (f"sizeof((({name}*)0)->{field})", ctypes.sizeof(kind))]
        checks += [(f"ZORV_{prefix}_{name.upper()}", value) for prefix, names in (
            ("PIXELS", face._PIXELS), ("LATE", face._LATE),
            ("FRAME", frame.FrameFlags.__members__),
            ("UTT", {name: value for value, name in _engine.EVENT_TYPES.items()}),
            ("REASON", {name: value for value, name in _engine.REASONS.items() if name}))
            for name, value in names.items()]
        lines = "".join(f'printf("%ld\\n", (long)({expression}));' for expression, _ in checks)
        with tempfile.TemporaryDirectory() as folder:
            source, program = Path(folder, "records.c"), Path(folder, "records")
            source.write_text(f"#include <stdio.h>\n#include <zorv_core.h>\nint main(void) "
                              f"{{ {lines} return 0; }}")
            subprocess.run([os.environ["ZORV_CC"], f"-I{HEADER.parent}", source, "-o", program],
                           check=True)
            printed = subprocess.run([program], check=True, capture_output=True).stdout.split()
        self.assertEqual([(expression, int(value)) for (expression, _), value
                          in zip(checks, printed)], checks)


if __name__ == "__main__":
    unittest.main()
