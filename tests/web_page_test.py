"""The page in headless Chromium: everything arrives, in order, and sound and picture belong together,
judged by the page's own pixels and sound. Who comes when it is full reads so.

    web_page_test.py SOURCES DEMO    with ZORV_LIBRARY and PYTHONPATH
"""
import json
import statistics
import sys
import tempfile
import time
import urllib.request

sys.path.insert(0, f"{sys.argv[1]}/bench")
import web_bench  # noqa: E402

# Marks in the sound are 400 ms apart and paired with frames by number: what belongs elsewhere is
# further away than a slow machine brings them.
APART_MS = 3000


def full_is_said():
    def sessions():
        with urllib.request.urlopen(url + "health") as answer:
            return json.load(answer)["sessions"]
    while sessions() < 1:
        time.sleep(0.05)
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        browser = web_bench.chromium(folder, url, "--dump-dom", "--virtual-time-budget=10000")
        page = browser.communicate(timeout=120)[0]
    assert "Full: this machine carries one viewer at a time." in page, page[-3000:]


with web_bench.serving(sys.argv[2], "--sessions", "1") as url:
    result, others = web_bench.measured(url, rounds=3, during=full_is_said)
print(json.dumps(result))
assert not others, others  # nothing that the page's policy refused, no error
assert result["ordered"] and result["frames"] > 100, result
for one in result["rounds"]:
    assert None not in [one.get(key) for key in ("sound", "mouth", "silent", "shut")], one
    assert one["marks"] >= 3 and one["mouth"] > 0, one
offsets = [value for one in result["rounds"] for value in one["offsets"]]
assert len(offsets) >= 3 and abs(statistics.median(offsets)) < APART_MS, offsets
