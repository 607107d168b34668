#!/usr/bin/env python3
"""Tests of the command-line host as a person and a pipeline use it, run on the Linux side.

  cli_test.py --emulator WINE_RUN --tool QVSCAN_EXE --prefix PREFIX CASE

CASE is one of: json (JSON output of real system executables against an independent reading of their
import tables), table (the aligned table and its summary), exits (usage errors and exit codes),
script (a JScript client through the registration entries, in a prefix of its own).
"""
import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "static"))
import check_walk  # noqa: E402  (the independent objdump reading of import tables)

failures = []


def expect(condition, what):
    if not condition:
        failures.append(what)
        print("FAIL", what)


def run(args, env=None, timeout=300):
    return subprocess.run(args, capture_output=True, text=True, errors="replace", timeout=timeout, env=env)


def case_json(a):
    for top in ["C:\\windows\\system32\\notepad.exe", "C:\\windows\\regedit.exe"]:
        r = run([a.emulator, a.tool, "static", top, "--no-filter", "--json"])
        expect(r.returncode == 0, f"{top}: exit {r.returncode}: {r.stderr.strip()}")
        doc = json.loads(r.stdout)
        expect(doc["completed"] is True and doc["exists"] is True, f"{top}: completed and exists")
        deps = doc["dependencies"]
        expect(doc["summary"]["files"] == len(deps), f"{top}: summary counts the records")
        # What the import tables say, read by objdump and resolved by the same rules.
        folders = run([a.emulator, a.dump, top]).stdout.splitlines() if a.dump else []
        search = [l.split("\t", 1)[1] if "\t" in l else "" for l in folders if l.startswith("folder")]
        found, missing, events = check_walk.expected_walk(a.prefix, top, search)
        # Records stand under full paths, which ignore case: spellings of one file are one record.
        want = {p.lower() for k, p in found.items() if p.lower() != top.lower()}
        got = {(d["folder"].rstrip("\\") + "\\" + d["name"]).lower() for d in deps if not d["missing"]}
        # Wine may report a file of the prefix's C: drive under either of its names; compare names too.
        expect({p.rsplit("\\", 1)[1] for p in got} == {p.rsplit("\\", 1)[1] for p in want},
               f"{top}: found records {sorted(got)} vs import tables {sorted(want)}")
        expect({d["name"].lower() for d in deps if d["missing"]} == {m.lower() for m in missing},
               f"{top}: missing records")
        expect(doc["summary"]["filesMet"] == len(events), f"{top}: every import met fires once")
        for d in deps:
            expect(set(d) >= {"name", "folder", "version", "size", "modified", "destination", "languages", "missing",
                              "filterable", "mergeModule", "shared", "selfRegistering"}, f"{top}: fields of {d}")
            if not d["missing"]:
                unix = check_walk.win_to_unix(a.prefix, d["folder"] + "\\" + d["name"])
                if unix:
                    expect(d["size"] == os.path.getsize(unix), f"{top}: size of {d['name']}")
        # With the lists on, the system's own files are dropped.
        r = run([a.emulator, a.tool, "static", top, "--json"])
        doc = json.loads(r.stdout)
        expect(all(not d["name"].lower().startswith("kernelbase") for d in doc["dependencies"]),
               f"{top}: system files are filtered")
        print("ok  ", top, len(deps), "records")


def case_table(a):
    top = "C:\\windows\\system32\\notepad.exe"
    r = run([a.emulator, a.tool, "static", top, "--no-filter"])
    expect(r.returncode == 0, f"table exit {r.returncode}")
    lines = r.stdout.rstrip("\n").splitlines()
    expect(lines[0].split() == ["NAME", "FOLDER", "VERSION", "SIZE", "MARKS"], f"header {lines[0]!r}")
    summary = lines[-1]
    count = int(summary.split()[0])
    expect(len(lines) == count + 2, f"{count} rows in {len(lines)} lines")
    # Columns line up: every row's FOLDER starts where the header's does.
    col = lines[0].index("FOLDER")
    for row in lines[1:-1]:
        expect(row[col - 2:col] == "  " and row[col] != " ", f"aligned row {row!r}")
        expect(len(row.split()[-1]) == 5 and set(row.split()[-1]) <= set("MFGSR-"), f"marks of {row!r}")
    j = json.loads(run([a.emulator, a.tool, "static", top, "--no-filter", "--json"]).stdout)
    expect(count == j["summary"]["files"], "table and JSON agree on the count")
    r = run([a.emulator, a.tool, "pe", "C:\\windows\\system32\\kernel32.dll", "--json"])
    pe = json.loads(r.stdout)["pe"]
    expect(pe["name"].lower() == "kernel32.dll" and pe["version"] != "", f"pe record {pe}")
    r = run([a.emulator, a.tool, "pe", "C:\\windows\\win.ini", "--json"])
    expect(json.loads(r.stdout)["pe"] is None and r.returncode == 0, "pe of a text file is null")
    print("ok   table", count, "rows")


def case_exits(a):
    table = [
        ([], 2, "no command given"),
        (["bogus"], 2, "unknown command"),
        (["static"], 2, "needs a FILE"),
        (["static", "C:\\x.exe", "--type"], 2, "--type needs a value"),
        (["static", "C:\\x.exe", "--type", "abc"], 2, "--type wants a whole number"),
        (["static", "C:\\x.exe", "--frobnicate"], 2, "unknown option"),
        (["pe", "a", "b"], 2, "unexpected argument"),
        (["--help"], 0, "usage:"),
        (["static", "C:\\no\\such\\file.exe"], 3, "no such file"),
        (["pe", "C:\\no\\such\\file.dll"], 3, "no such file"),
    ]
    for args, code, text in table:
        r = run([a.emulator, a.tool] + args)
        expect(r.returncode == code, f"{args}: exit {r.returncode}, expected {code}")
        expect(text in r.stderr, f"{args}: stderr {r.stderr!r} lacks {text!r}")
    r = run([a.emulator, a.tool, "static", "C:\\no\\such\\file.exe", "--json"])
    doc = json.loads(r.stdout)
    expect(doc["exists"] is False and doc["completed"] is True and doc["dependencies"] == [],
           "a missing file: completed, empty, and said so")
    # Without its lists the scan cannot run, and the person is told which file and why.
    with tempfile.TemporaryDirectory() as empty:
        for content, why in [(None, "does not exist"), ("<Filters><Exclude>", "")]:
            if content is not None:
                with open(os.path.join(empty, "filters.xml"), "w") as f:
                    f.write(content)
            env = dict(os.environ, QV_SUPPORT_DIR="Z:" + empty.replace("/", "\\"))
            r = run([a.emulator, a.tool, "static", "C:\\windows\\system32\\notepad.exe"], env=env)
            expect(r.returncode == 1, f"no lists: exit {r.returncode}")
            expect("filters.xml" in r.stderr and why in r.stderr, f"no lists: stderr {r.stderr!r}")
    print("ok   exits")


def case_script(a):
    # A prefix of its own: registration entries must not reach the prefix the other tests share.
    tmp = tempfile.mkdtemp(prefix="qvscan-script-")
    env = dict(os.environ, QV_WINEPREFIX=os.path.join(tmp, "prefix"), WINEPREFIX=os.path.join(tmp, "prefix"))
    try:
        script = os.path.join(tmp, "client.js")
        with open(script, "w") as f:
            f.write('try {\n'
                    '  var util = new ActiveXObject("QVWIScanners.ScanUtil");\n'
                    '  var pe = util.PE("C:\\\\windows\\\\system32\\\\kernel32.dll");\n'
                    '  WScript.Echo("name=" + pe.Name + ";path=" + pe.Path + ";major=" + pe.MajorVersion);\n'
                    '  WScript.Echo("text=" + (util.PE("C:\\\\windows\\\\win.ini") === null));\n'
                    '} catch (e) { WScript.Echo("error=" + e.message); }\n')
        winpath = "Z:" + script.replace("/", "\\")
        r = run([a.emulator, a.tool, "register"], env=env)
        expect(r.returncode == 0 and "ScanUtil" in r.stdout, f"register: {r.returncode} {r.stdout} {r.stderr}")
        r = run([a.emulator, "cscript.exe", "//nologo", winpath], env=env)
        out = r.stdout.replace("\r", "")
        expect("name=kernel32.dll;path=C:\\windows\\system32;major=" in out, f"script output {out!r}")
        major = int(out.split("major=")[1].split()[0]) if "major=" in out else -1
        expect(major > 0, "the version came through IDispatch")
        expect("text=true" in out, "PE of a text file is null for the script")
        r = run([a.emulator, a.tool, "unregister"], env=env)
        expect(r.returncode == 0, f"unregister: {r.returncode} {r.stderr}")
        r = run([a.emulator, "cscript.exe", "//nologo", winpath], env=env)
        expect("error=" in r.stdout and "name=" not in r.stdout, f"after unregister: {r.stdout!r}")
        print("ok   script")
    finally:
        run(["wineserver", "-k"], env=env)
        shutil.rmtree(tmp, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--emulator", required=True)
    ap.add_argument("--tool", required=True)
    ap.add_argument("--dump", default="")
    ap.add_argument("--prefix", required=True)
    ap.add_argument("case", choices=["json", "table", "exits", "script"])
    a = ap.parse_args()
    {"json": case_json, "table": case_table, "exits": case_exits, "script": case_script}[a.case](a)
    print(f"{0 if failures else 1} passed, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
