#!/usr/bin/env python3
"""The import walk of real system files (walk_dump, under Wine) against objdump's reading of their import
tables, each name resolved along the same folders by the same rules: the file's folder, then the Path; a folder
of that name and an image of another machine are stepped over, a file that is no image is taken."""
import argparse, functools, os, re, subprocess, sys

SKIP = {"kernel32.dll", "ntdll.dll", "user32.dll", "gdi32.dll", "advapi32.dll", "shell32.dll", "ole32.dll"}


def win_to_unix(prefix, path):
    m = re.match(r"^([A-Za-z]):\\(.*)$", path)
    drive = m and m.group(1).lower()
    base = os.path.join(prefix, "drive_" + drive) if drive != "z" else "/"
    return m and resolve_case(base, m.group(2).replace("\\", "/"))


def resolve_case(base, rest):  # base/rest found without regard to case, as Wine does; None when absent
    cur = base
    for part in [p for p in rest.split("/") if p]:
        if not os.path.isdir(cur):
            return None
        exact = os.path.join(cur, part)
        if os.path.lexists(exact):
            cur = exact
            continue
        match = [e for e in os.listdir(cur) if e.lower() == part.lower()]
        if not match:
            return None
        cur = os.path.join(cur, match[0])
    return cur


@functools.lru_cache(maxsize=None)
def read_image(path):
    """(machine, [import names]) of a PE image, or None for a file objdump cannot read as one."""
    out = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", path], capture_output=True, text=True,
                         errors="replace")
    result = None
    if out.returncode == 0 and "The Data Directory" in out.stdout:
        names, in_imports, machine = [], False, None
        for line in out.stdout.splitlines():
            if line.startswith("The Import Tables"):
                in_imports = True
                continue
            if line.startswith("The ") and in_imports:
                in_imports = False
            if in_imports and "DLL Name:" in line:
                names.append(line.split("DLL Name:", 1)[1].strip())
        with open(path, "rb") as f:
            data = f.read(4096)
        off = int.from_bytes(data[60:64], "little")
        machine = int.from_bytes(data[off + 4:off + 6], "little")
        result = (machine, names)
    return result


def expected_walk(prefix, top, folders):
    top_dir = top.rsplit("\\", 1)[0]
    search = [top_dir] + folders
    found, missing, events = {}, {}, []

    def find(name, machine):
        for d in search:
            cand = name if d == "" else (d.rstrip("\\") + "\\" + name)
            unix = win_to_unix(prefix, cand) if d != "" else win_to_unix(prefix, top_dir + "\\" + name)
            if unix is None or os.path.isdir(unix) or not os.path.exists(unix):
                continue
            img = read_image(unix)
            if img is not None and machine != 0 and img[0] != machine:
                continue
            return cand, unix, img
        return None

    def walk_image(path, unix, img, is_dep):
        key = path.rsplit("\\", 1)[-1]
        if key in found:
            return
        if is_dep:
            if key.lower() in SKIP:
                return
            found[key] = path
        machine, names = img
        for name in names:
            hit = find(name, machine)
            if hit:
                cand, cunix, cimg = hit
                if cimg is None:
                    if name.rsplit("\\", 1)[-1].lower() not in SKIP:
                        found[cand.rsplit("\\", 1)[-1]] = cand
                else:
                    walk_image(cand, cunix, cimg, True)
                events.append(cand)
            else:
                if name.rsplit("\\", 1)[-1].lower() not in SKIP:
                    missing[name] = name
                events.append(name)

    unix = win_to_unix(prefix, top)
    img = read_image(unix) if unix else None
    if img is not None:
        walk_image(top, unix, img, False)
    return found, missing, events


def main():
    ap = argparse.ArgumentParser()
    for option in ["--emulator", "--dump", "--prefix"]:
        ap.add_argument(option, required=True)
    ap.add_argument("files", nargs="+")
    args = ap.parse_args()
    failures = 0
    for top in args.files:
        out = subprocess.run([args.emulator, args.dump, top], capture_output=True, text=True, errors="replace",
                             timeout=600).stdout
        rows = [line.rstrip("\r").split("\t") for line in out.splitlines()]
        folders = [r[1] if len(r) > 1 else "" for r in rows if r[0] == "folder"]
        got = ({r[1]: r[2] for r in rows if r[0] == "found"}, {r[1]: r[1] for r in rows if r[0] == "missing"},
               [r[1] for r in rows if r[0] == "event"])
        want = expected_walk(args.prefix, top, folders)
        for what, g, w in zip(["found", "missing", "events"], got, want):
            if g != w:
                failures += 1
                print(f"FAIL {top}: {what}: walker {g}\n  objdump {w}")
        print(f"{top}: {len(got[0])} found, {len(got[1])} missing, {len(got[2])} events")
    print(f"{0 if failures else 1} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
