"""docs/architecture.md against the code: locks and where they are, threads, modules, names.

Usage: architecture_test.py SOURCE_DIR
"""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
pages = re.split(r"(?m)^# ", (root / "docs/architecture.md").read_text(encoding="utf-8"))[1:]
page = pages[0]
diagram = page.split("```")[1]
daemon = {path.name: path.read_text(encoding="utf-8") for path in root.glob("location_service/*/*.*")}
code = "\n".join(daemon.values())
wrong = []


def text_of(folder):
    return "\n".join(path.read_text(encoding="utf-8") for path in root.glob(f"{folder}/**/*.*") if path.is_file())


def check(right, complaint):
    wrong.extend([complaint] * (not right))


platform = text_of("platform")
# Every lock has its row, with the file that defines it; every semaphore is named.
rows = dict(re.findall(r"^\| `(\w+)` \| `([\w.]+)` \|", page, re.M))
locks = {name: file for file, text in daemon.items() for name in re.findall(r"^std::mutex (\w+)", text, re.M)}
check(rows == locks, f"locks: the page has {rows}, the code {locks}")
for name in re.findall(r"^(?:extern )?sem_t (\w+)", code, re.M):
    check(f"`{name}`" in page, f"semaphore {name} is not on the page")

# Every thread: what the daemon starts by its function, named ones by their name.
for name in (re.findall(r"(?:\bpthread_create\([^,]+,[^,]+,|\bcreate_thread\()\s*(?!body|void)(\w+)", code)
             + re.findall(r'pthread_setname_np\([^;]*("\w[\w-]*")', code)):
    check(name in diagram, f"thread {name} is not in the diagram")
for name in re.findall(r'"([\w-]+)"', diagram):
    check(f'"{re.sub("-8$", "-%u", name)}"' in code + platform, f"thread {name} of the diagram does not exist")

# Every module has one header, and its name is the prefix of its sources.
told = set(re.findall(r"`(gps_\w+)`", page.partition("**Modules.**")[2]))
modules = {path.stem for path in root.glob("location_service/src/gps_*.h")}
check(modules == told, f"modules: the page has {sorted(told)}, the code {sorted(modules)}")
for path in root.glob("location_service/src/*.cpp"):
    check(any(f"{path.stem}_".startswith(f"{module}_") for module in told), f"{path.name}: of no module")

# Every name in a diagram and in backticks is one of the code or a prefix of files; every path is one.
checked = 0
for folder, page in zip(("location_service", "simulator", "client"), pages, strict=True):
    code = text_of(folder) + (platform if page is pages[0] else "")
    diagram = page.split("```")[1]
    for name in set(re.findall(r"\b[a-z]+(?:_[a-z]+)+\b", diagram)) | set(re.findall(r"`(\w+_\w+)`", page)):
        known = re.search(rf"\b{name}\b", code) or list(root.glob(f"{folder}/src/{name}*"))
        check(known or name == "location_service", f"{folder}: {name}: no such name")
        checked += 1
    for path in re.findall(r"`([\w/]+(?:/|\.\w+))`", page):
        known = any((root / before / path).exists() for before in ("", folder, "common"))
        check(known or list(root.glob(f"{folder}/**/{path}")), f"{folder}: {path}: no such file")
    for name in re.findall(r"^ *std::mutex (\w+)", "" if page is pages[0] else code, re.M):
        check(f"{name}`" in page and name in diagram, f"{folder}: lock {name} is not on the page")

# The files that the page for developers sends one to.
for path in re.findall(r"`((?:\w[\w-]*/)+[\w.-]*)`", (root / "docs/development.md").read_text(encoding="utf-8")):
    check((root / path).exists() or path.startswith("build/") or "NAME" in path, f"development: {path}: no such file")
rooms = re.findall(r"`(\w+)/` \(", pages[1])
built = re.findall(r"^sim_room\((\w+)", (root / "simulator/CMakeLists.txt").read_text(encoding="utf-8"), re.M)
check(rooms == built, f"rooms: the page has {rooms}, the build {built}")

print(*wrong, f"{len(locks)} locks, {checked} names, {len(wrong)} wrong", sep="\n")
sys.exit(1 if wrong or not locks or not checked else 0)
