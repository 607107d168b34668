#!/usr/bin/env python3
"""The release as a Windows user meets it, in new, empty Wine prefixes (never the build's):

- the zip, unpacked into a folder with spaces and non-ASCII characters: --version, static scans of notepad.exe
  and of the walk fixture, the .NET fixture's references, a trace (the engine found beside the tool), register,
  a VBScript client of StaticScan run by the prefix's script host, unregister leaving no key; the same folder at
  a path of over 200 characters, a copy without its support folder, two copies side by side;
- the MSI: msiexec /i /qn, the same checks from Program Files (registered by the install), msiexec /x leaving no
  file and no key.

Each scan's result is compared with the build tree's own tool on the same file.
    dist_test.py --zip Z --msi M --fixtures DIR --tool BUILD/bin/qvscan.exe --emulator BUILD/wine-run.sh
"""
import argparse, json, os, re, shutil, subprocess, sys, tempfile, zipfile

failures = []


def expect(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL: " + what, flush=True)


def win(path):
    return "Z:" + path.replace("/", "\\")


class Prefix:
    """A Wine prefix of its own; the programs run in it by their Windows or Linux paths."""

    def __init__(self, path):
        self.path = path
        self.env = dict(os.environ, WINEPREFIX=path, WINEDEBUG="-all")
        self.env.pop("QV_SUPPORT_DIR", None)
        self.env.pop("QV_SERVER_DLL", None)

    def run(self, args, timeout=180, env=None):
        return subprocess.run(["wine"] + args, env=env or self.env, capture_output=True, text=True,
                              errors="replace", timeout=timeout)

    def stop(self):
        subprocess.run(["wineserver", "-k"], env=self.env, capture_output=True)
        subprocess.run(["wineserver", "-w"], env=self.env, capture_output=True)

    def registry(self):
        """The prefix's registry as Wine keeps it on disk, written out by stopping its server."""
        self.stop()
        text = ""
        for hive in ("system.reg", "user.reg"):
            with open(os.path.join(self.path, hive), encoding="utf-8", errors="replace") as f:
                text += f.read()
        return text


def registered_ids(registry, dll_name):
    """The class and type-library GUIDs whose keys name the DLL (what a registration wrote)."""
    ids = set()
    for section in registry.split("\n\n"):
        head = section.split("\n", 1)[0]
        m = re.match(r"\[Software\\\\Classes\\\\(CLSID|TypeLib)\\\\(\{[0-9A-Fa-f-]+\})", head, re.I)
        if m and dll_name.lower() in section.lower():
            ids.add(m.group(2).upper())
    return ids


def leftovers(registry, ids):
    """What of the tool's registration the registry still holds."""
    found = [i for i in ids if i.lower() in registry.lower()]
    found += [n for n in ("QVWIScanners.", "RunTimeDepChecker.") if n.lower() in registry.lower()]
    return found


class Checks:
    def __init__(self, a):
        self.a = a
        self.references = {}

    def reference(self, args):
        """The build tree's tool on the same arguments, in the build's prefix."""
        key = tuple(args)
        if key not in self.references:
            r = subprocess.run([self.a.emulator, self.a.tool] + args, capture_output=True, text=True, errors="replace",
                               timeout=180)
            self.references[key] = json.loads(r.stdout) if r.returncode == 0 else None
        return self.references[key]

    def scans(self, prefix, tool, where, vbs_dir):
        """The checks from one installed or unpacked folder."""
        a = self.a
        r = prefix.run([tool, "--version"])
        expect(r.returncode == 0 and r.stdout.strip() == "qvscan " + a.version, f"{where}: --version {r.stdout!r}")
        notepad = "C:\\windows\\system32\\notepad.exe"
        for extra in ([], ["--no-filter"]):
            r = prefix.run([tool, "static", notepad, "--json"] + extra)
            doc = json.loads(r.stdout) if r.returncode == 0 else None
            ref = self.reference(["static", notepad, "--json"] + extra)
            names = lambda d: sorted((x["name"].lower(), x["missing"]) for x in d["dependencies"])  # noqa: E731
            expect(doc is not None and ref is not None and names(doc) == names(ref),
                   f"{where}: static notepad {extra}: {r.returncode} {r.stderr[-300:]!r}")
            if extra:
                expect(doc and len(doc["dependencies"]) > 3, f"{where}: notepad's closure without the filter")
        app = win(os.path.join(a.fixtures, "walk", "app", "app.exe"))
        r = prefix.run([tool, "static", app, "--json"])
        doc = json.loads(r.stdout) if r.returncode == 0 else None
        expect(doc is not None and doc == self.reference(["static", app, "--json"]),
               f"{where}: static of the walk fixture: {r.returncode} {r.stderr[-300:]!r}")
        expect(doc and {"alpha.dll", "beta.dll"} <= {d["name"].lower() for d in doc["dependencies"]},
               f"{where}: the walk fixture's DLLs")
        lib = win(os.path.join(a.fixtures, "dotnet", "app", "App.exe"))
        r = prefix.run([tool, "assembly", lib, "--json"])
        doc = json.loads(r.stdout) if r.returncode == 0 else None
        expect(doc is not None and doc == self.reference(["assembly", lib, "--json"]),
               f"{where}: assembly of the .NET fixture: {r.returncode} {r.stderr[-300:]!r}")
        host, plugin = win(a.fixtures + "/trace/host.exe"), win(a.fixtures + "/trace/plugins/plugin.dll")
        r = prefix.run([tool, "trace", host, "load", plugin, "--json"])
        doc = json.loads(r.stdout) if r.returncode == 0 else {}
        deps = [d["folder"].lower() + "\\" + d["name"].lower() for b in doc.get("bags", []) for d in b["dependencies"]]
        expect(doc.get("ended") == "finished" and deps == [plugin.lower()],
               f"{where}: trace: {r.returncode} {r.stdout[-300:]!r} {r.stderr[-300:]!r}")

    def script(self, prefix, where, vbs_dir):
        """A VBScript client of StaticScan, by ProgID, run by the prefix's own script host."""
        app = win(os.path.join(self.a.fixtures, "walk", "app", "app.exe"))
        script = os.path.join(vbs_dir, "scan.vbs")
        with open(script, "w", newline="\r\n") as f:
            f.write('Set scan = CreateObject("QVWIScanners.StaticScan")\n'
                    'Set events = CreateObject("QVWIScanners.ScanEvents")\n'
                    f'ok = scan.ScanFile("{app}", events, True, "", 0)\n'
                    'names = ""\n'
                    'For Each file In scan.Dependencies\n'
                    '    names = names & LCase(file.Name) & ","\n'
                    'Next\n'
                    'WScript.Echo "ok=" & ok & " found=" & events.Found & " names=" & names\n')
        out = prefix.run(["cscript.exe", "//nologo", win(script)]).stdout.replace("\r", "").strip()
        ref = self.reference(["static", app, "--json", "--no-extensions"])
        want = sorted(d["name"].lower() for d in ref["dependencies"]) if ref else None
        m = re.match(r"ok=True found=[1-9][0-9]* names=(.*)$", out)
        expect(m is not None and want and sorted(n for n in m.group(1).split(",") if n) == want,
               f"{where}: VBScript client: {out!r} (want {want})")


def unpack(zip_path, folder):
    with zipfile.ZipFile(zip_path) as z:
        z.extractall(folder)
        top = {n.split("/")[0] for n in z.namelist()}
    assert len(top) == 1, top
    return os.path.join(folder, top.pop())


def zip_checks(a, c, prefix, tmp):
    with zipfile.ZipFile(a.zip) as z:
        names = sorted(n.split("/", 1)[1] for n in z.namelist())
    want = {"qvscan.exe", "QVWIScanners.dll", "QvAppServices.dll", "SectionLoader.dll", "QVObjMgr.DLL",
            "QvMergeModules.dll", "TraceHost64.exe", "QvSettings.xml", "README.txt", "Support/filters.xml",
            "Support/VBSystem.ini", "Support/targets/windows-x64-net48.json", "Support/targets/windows-x64.json"}
    extra = [n for n in names if n not in want and not n.startswith("licenses/")]
    expect(want <= set(names) and not extra and any(n.startswith("licenses/") for n in names),
           f"zip: contents {names}")
    home = unpack(a.zip, os.path.join(tmp, "Zip Ünïcødé – folder"))
    tool = win(os.path.join(home, "qvscan.exe"))
    c.scans(prefix, tool, "zip", tmp)
    r = prefix.run([tool, "register"])
    expect(r.returncode == 0 and "ScanEvents" in r.stdout, f"zip: register: {r.returncode} {r.stderr!r}")
    c.script(prefix, "zip", tmp)
    registry = prefix.registry()
    ids = registered_ids(registry, "QVWIScanners.dll")
    expect(len(ids) >= 8, f"zip: registered classes and type library: {sorted(ids)}")
    r = prefix.run([tool, "unregister"])
    expect(r.returncode == 0, f"zip: unregister: {r.returncode} {r.stderr!r}")
    left = leftovers(prefix.registry(), ids)
    expect(not left, f"zip: unregister left {left}")

    # Over 200 characters of path.
    deep = os.path.join(tmp, "d" * 70, "e" * 70, "f" * 40)
    long_home = unpack(a.zip, deep)
    long_tool = win(os.path.join(long_home, "qvscan.exe"))
    expect(len(long_tool) > 200, f"a long path: {len(long_tool)}")
    r = prefix.run([long_tool, "static", win(os.path.join(a.fixtures, "walk", "app", "app.exe")), "--json"])
    doc = json.loads(r.stdout) if r.returncode == 0 else None
    expect(doc is not None and doc == c.reference(["static", win(os.path.join(a.fixtures, "walk", "app", "app.exe")),
                                                   "--json"]), f"long path: {r.returncode} {r.stderr[-300:]!r}")

    # Side by side: each copy runs its own scanners and reads its own support folder.
    second = unpack(a.zip, os.path.join(tmp, "second copy"))
    shutil.rmtree(os.path.join(second, "Support"))
    r = prefix.run([win(os.path.join(second, "qvscan.exe")), "static", "C:\\windows\\system32\\notepad.exe"])
    support = win(os.path.join(second, "Support"))
    expect(r.returncode == 1 and f"the support folder {support} is missing" in r.stderr and not r.stdout,
           f"no support folder: {r.returncode} {r.stderr!r}")
    r = prefix.run([tool, "static", "C:\\windows\\system32\\notepad.exe"])
    expect(r.returncode == 0, f"the first copy beside the second: {r.returncode} {r.stderr!r}")
    r = prefix.run([win(os.path.join(second, "qvscan.exe")), "pe", "C:\\windows\\system32\\notepad.exe"])
    expect(r.returncode == 0, f"a command without lists runs without the support folder: {r.stderr!r}")


def msi_checks(a, c, prefix, tmp):
    r = prefix.run(["msiexec", "/i", win(a.msi), "/qn"], timeout=300)
    home = os.path.join(prefix.path, "drive_c", "Program Files", "QVWI Scanners")
    there = sorted(os.path.relpath(os.path.join(d, f), home).replace(os.sep, "/")
                   for d, _, fs in os.walk(home) for f in fs) if os.path.isdir(home) else []
    expect(r.returncode == 0 and {"qvscan.exe", "QVWIScanners.dll", "TraceHost64.exe", "Support/filters.xml",
                                  "Support/targets/windows-x64-net48.json", "QvSettings.xml"} <= set(there),
           f"msi: installed {r.returncode} {there}")
    tool = "C:\\Program Files\\QVWI Scanners\\qvscan.exe"
    r = prefix.run(["reg", "query", "HKCR\\QVWIScanners.StaticScan\\CLSID", "/ve"])
    clsid = re.search(r"\{[0-9A-Fa-f-]+\}", r.stdout)
    server = prefix.run(["reg", "query", f"HKCR\\CLSID\\{clsid.group(0)}\\InprocServer32", "/ve"]).stdout if clsid else ""
    expect("C:\\Program Files\\QVWI Scanners\\QVWIScanners.dll".lower() in server.lower(),
           f"msi: the install registered the scanners: {r.stdout!r} {server!r}")
    c.scans(prefix, tool, "msi", tmp)
    c.script(prefix, "msi", tmp)
    ids = registered_ids(prefix.registry(), "QVWIScanners.dll")
    r = prefix.run(["msiexec", "/x", win(a.msi), "/qn"], timeout=300)
    expect(r.returncode == 0 and not os.path.exists(home), f"msi: uninstall {r.returncode}, left {home}")
    left = leftovers(prefix.registry(), ids)
    expect(ids and not left, f"msi: uninstall left {left} of {sorted(ids)}")


def main():
    p = argparse.ArgumentParser()
    for name in ("zip", "msi", "fixtures", "tool", "emulator", "version"):
        p.add_argument("--" + name, required=True)
    a = p.parse_args()
    a.fixtures = os.path.abspath(a.fixtures)
    tmp = tempfile.mkdtemp(prefix="qvscan-dist-")
    c = Checks(a)
    try:
        template = Prefix(os.path.join(tmp, "template"))
        subprocess.run(["wineboot", "-i"], env=template.env, capture_output=True, timeout=300)
        template.stop()
        prefixes = []
        for name in ("zip-prefix", "msi-prefix"):
            shutil.copytree(template.path, os.path.join(tmp, name), symlinks=True)
            prefixes.append(Prefix(os.path.join(tmp, name)))
        try:
            zip_checks(a, c, prefixes[0], tmp)
        finally:
            prefixes[0].stop()
        try:
            msi_checks(a, c, prefixes[1], tmp)
        finally:
            prefixes[1].stop()
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    print(f"dist: {len(failures)} failed" if failures else "dist: all checks passed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
