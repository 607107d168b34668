#!/usr/bin/env python3
"""The import and delay-import readers against llvm-readobj's reading of the same images: the delay-loading
fixture (both its tables) and every image of the Wine prefix's system folder.
    check_tables.py --emulator WINE-RUN --dump pe_tables_dump.exe --readobj llvm-readobj-14 FILE|FOLDER..."""
import argparse, os, re, subprocess, sys


def readobj(tool, paths):
    """{path: [(kind, dll, [functions])]} as llvm-readobj tells them."""
    out = subprocess.run([tool, "--coff-imports"] + paths, capture_output=True, text=True, errors="replace").stdout
    tables, current, module = {}, None, None
    for line in out.splitlines():
        if line.startswith("File: "):
            current = tables.setdefault(line[6:], [])
        elif current is None:
            continue
        elif line in ("Import {", "DelayImport {"):
            module = ["import" if line[0] == "I" else "delay", None, []]
            current.append(module)
        elif module and line.startswith("  Name: ") and module[1] is None:
            module[1] = line[8:]
        elif module and (m := re.match(r"\s+Symbol: (.*) \((\d+)\)$", line)):
            module[2].append(m.group(1) if m.group(1) else "#" + m.group(2))
    return {p: [(k, d, f) for k, d, f in t] for p, t in tables.items()}


def dumped(emulator, dump, paths):
    out = ""
    for at in range(0, len(paths), 150):  # a Windows command line holds at most 32767 characters
        out += subprocess.run([emulator, dump] + ["Z:" + p.replace("/", "\\") for p in paths[at:at + 150]],
                              capture_output=True, text=True, errors="replace").stdout
    tables, current = {}, None
    for line in out.splitlines():
        fields = line.split("\t")
        if fields[0] == "file":
            current = tables.setdefault(fields[1][2:].replace("\\", "/"), [])
        elif current is not None and fields[0] in ("import", "delay"):
            current.append((fields[0], fields[1], fields[2:]))
    return tables


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--emulator", required=True)
    ap.add_argument("--dump", required=True)
    ap.add_argument("--readobj", required=True)
    ap.add_argument("paths", nargs="+")
    a = ap.parse_args()
    files = []
    for p in a.paths:
        files += sorted(os.path.join(p, n) for n in os.listdir(p) if n.lower().endswith((".dll", ".exe"))) \
            if os.path.isdir(p) else [p]
    theirs, ours = readobj(a.readobj, files), dumped(a.emulator, a.dump, files)
    failures = delays = 0
    for path in files:
        if path not in theirs:  # no image to llvm-readobj
            continue
        delays += sum(1 for k, _, _ in theirs[path] if k == "delay")
        if ours.get(path) != theirs[path]:
            failures += 1
            print(f"FAIL {path}:\n  ours   {ours.get(path)}\n  theirs {theirs[path]}")
    print(f"{len(theirs)} images, {delays} delay-import descriptors, {failures} disagree")
    return 1 if failures or len(theirs) < 2 or delays < 2 else 0


if __name__ == "__main__":
    sys.exit(main())
