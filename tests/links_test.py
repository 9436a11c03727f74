"""Every link of the pages leads to a file, and to a heading where it names one.

    links_test.py SOURCE_DIR
"""
import re
import sys
from pathlib import Path


def anchors(page):
    """The headings' names, as hosts of Markdown pages make them."""
    text = re.sub(r"```.*?```", "", page.read_text(), flags=re.S)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")
            for title in re.findall(r"^#+ (.*)$", text, re.M)}


root = Path(sys.argv[1])
pages = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
links = [(page, *link) for page in pages
         for link in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", page.read_text())]
broken = [f"{page.name}: {target}#{anchor}" for page, target, anchor in links
          if not (to := page.parent / target if target else page).exists()
          or anchor and anchor not in anchors(to)]
linked = {(page.parent / target).resolve() for page, target, _ in links}
orphans = [f"{page.name}: no link leads here" for page in pages[1:] if page.resolve() not in linked]
print("\n".join(broken + orphans) or f"{len(links)} links")
sys.exit(bool(broken or orphans) or len(links) < 20)
