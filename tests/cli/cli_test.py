#!/usr/bin/env python3
"""The command-line host as a person and a pipeline use it, checked on the Linux side. CASE: json (real
programs against an independent reading of their import tables; the fixture tree record by record), table,
exits (usage errors, exit codes, messages), script (JScript and VBScript clients through the registration entries), hostile
(files rewritten under the scan, Linux paths Windows cannot spell, .dep companions), trace (dynamic scans against
the loader's own log of the same run), assembly (the .NET fixtures: identity, references and their kinds, the
static scan of the whole tree), vbp (Visual Basic projects and groups written by the test, a JScript client)."""
import argparse, json, os, re, shutil, signal, struct, subprocess, sys, tempfile, threading, time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "static"))
import check_walk  # noqa: E402  (the independent objdump reading of import tables)

failures = []
NOTEPAD = "C:\\windows\\system32\\notepad.exe"


def expect(condition, what):
    if not condition:
        failures.append(what)
        print("FAIL", what)


def run(a, args, env=None):
    return subprocess.run([a.emulator, a.tool] + args, capture_output=True, text=True, errors="replace", timeout=120,
                          env=env)


def case_json(a):
    # Several files and a folder: a section each, in the order given, a folder's images by name; what is
    # missing is told and the others are scanned.
    lib = a.fixtures + "/walk/lib"
    r = run(a, ["static", NOTEPAD, lib, "C:\\no\\such.exe", "--json"])
    doc = json.loads(r.stdout)
    got = [(f["file"].rsplit("\\", 1)[1].lower(), f["exists"]) for f in doc["files"]]
    expect(r.returncode == 3 and "no such file" in r.stderr and got == [("notepad.exe", True)] + [
        (n, True) for n in ["delta.dll", "dirlike.dll", "epsilon.dll", "gamma.dll", "noimports.exe", "upper.exe"]]
        + [("such.exe", False)] and doc["summary"]["scanned"] == 8, f"several: {r.returncode} {got} {r.stderr!r}")
    upper = [f for f in doc["files"] if f["file"].lower().endswith("upper.exe")][0]
    expect([d["name"] for d in upper["dependencies"]] == ["gamma.dll"], f"upper.exe: {upper}")
    text = run(a, ["static", lib]).stdout
    expect(text.count(":\n") == 6 and text.rstrip().endswith("E lacks entry points)"), f"folder as text: {text!r}")
    for top in [NOTEPAD, "C:\\windows\\regedit.exe"]:
        r = run(a, ["static", top, "--no-filter", "--json"])
        expect(r.returncode == 0 and r.stderr == "", f"{top}: exit {r.returncode}, stderr {r.stderr!r}")
        doc, deps = json.loads(r.stdout), json.loads(r.stdout)["dependencies"]
        expect(doc["completed"] and doc["exists"] and doc["summary"]["files"] == len(deps), f"{top}: summary")
        dump = subprocess.run([a.emulator, a.dump, top], capture_output=True, text=True, errors="replace").stdout
        search = [l.split("\t", 1)[1] if "\t" in l else "" for l in dump.splitlines() if l.startswith("folder")]
        found, missing, events = check_walk.expected_walk(a.prefix, top, search)
        want = {p.rsplit("\\", 1)[1].lower() for p in found.values() if p.lower() != top.lower()}
        expect({d["name"].lower() for d in deps if not d["missing"]} == want, f"{top}: found records vs imports")
        expect({d["name"].lower() for d in deps if d["missing"]} == {m.lower() for m in missing}, f"{top}: missing")
        expect(doc["summary"]["filesMet"] == len(events), f"{top}: every import met fires once")
        for d in deps:
            shared = d["folder"].lower().rstrip("\\") in ("c:\\windows\\system32", "c:\\windows")
            expect(d["filterable"] and d["shared"] == shared,
                   f"{top}: the system's own file {d['name']} is marked and shared")
            unix = check_walk.win_to_unix(a.prefix, d["folder"] + "\\" + d["name"])
            expect(unix is None or d["size"] == os.path.getsize(unix), f"{top}: size of {d['name']}")
        doc = json.loads(run(a, ["static", top, "--json"]).stdout)
        expect(doc["dependencies"] == [], f"{top}: with the lists on, the system's own files are dropped")
    # The fixture tree, gathered in one folder without dirlike.dll: every field a pipeline reads.
    with tempfile.TemporaryDirectory() as tmp:
        for rel in ["app/app.exe", "app/alpha.dll", "app/beta.dll", "app/notpe.dll", "lib/gamma.dll", "lib/delta.dll",
                    "lib/epsilon.dll"]:
            shutil.copy(os.path.join(a.fixtures, "walk", rel), tmp)
        r = run(a, ["static", "Z:" + tmp.replace("/", "\\") + "\\app.exe", "--json"])
        deps = {d["name"].lower(): d for d in json.loads(r.stdout)["dependencies"]}
        expect(sorted(deps) == ["alpha.dll", "beta.dll", "delta.dll", "dirlike.dll", "epsilon.dll", "gamma.dll",
                                "missing_one.dll", "notpe.dll"], f"fixture records {sorted(deps)}")
        for name, d in deps.items():
            missing = name in ("missing_one.dll", "dirlike.dll")
            expect(d["missing"] == missing and not d["filterable"] and not d["shared"] and not d["mergeModule"]
                   and d["selfRegistering"] == (name in ("gamma.dll", "epsilon.dll"))
                   and d["folder"].lower() == ("" if missing else "z:" + tmp.replace("/", "\\").lower()),
                   f"fixture record {d}")


def case_table(a):
    r = run(a, ["static", NOTEPAD, "--no-filter"])
    lines = r.stdout.rstrip("\n").splitlines()
    expect(r.returncode == 0 and lines[0].split() == ["NAME", "FOLDER", "VERSION", "SIZE", "MARKS"], "header")
    count = int(lines[-1].split()[0])
    expect(len(lines) == count + 2 and count > 3, f"{count} rows in {len(lines)} lines")
    col = lines[0].index("FOLDER")
    for row in lines[1:-1]:
        expect(row[col - 2:col] == "  " and row[col] != " ", f"aligned row {row!r}")
        expect(row.split()[-1][1] == "F" and set(row.split()[-1]) <= set("MFGSR-"), f"marks of {row!r}")
    pe = json.loads(run(a, ["pe", "C:\\windows\\system32\\kernel32.dll", "--json"]).stdout)["pe"]
    expect(pe["name"].lower() == "kernel32.dll" and pe["version"] != "" and pe["shared"], f"pe record {pe}")
    r = run(a, ["pe", "C:\\windows\\win.ini", "--json"])
    expect(json.loads(r.stdout)["pe"] is None and r.returncode == 0, "pe of a text file is null")


def case_exits(a):
    # First, while no desktop of an earlier command is up: a scan leaves no process behind that holds its output (under Wine, a desktop started for a window would hold
    # standard error for a second more): once the process has ended, nothing but this test has the pipes open.
    for args in (["static", NOTEPAD, "--json"], ["pe", NOTEPAD], ["assembly", a.fixtures + "/dotnet/interop/GuidOnly.dll"]):
        p = subprocess.Popen([a.emulator, a.tool] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        p.wait(timeout=120)
        pipes = {f"pipe:[{os.fstat(s.fileno()).st_ino}]" for s in (p.stdout, p.stderr)}
        held = pipe_holders(pipes)
        expect(p.returncode == 0 and not held, f"{args[0]}: exit {p.returncode}, its pipes still held by {held}")
        p.communicate()
    table = [
        ([], 2, "no command given"), (["bogus"], 2, "unknown command"), (["static"], 2, "needs a FILE"),
        (["static", "C:\\x.exe", "--type"], 2, "--type needs a value"),
        (["static", "C:\\x.exe", "--type", "abc"], 2, "--type wants 0, 1 or 2"),
        (["static", "C:\\x.exe", "--type", "4294967296"], 2, "--type wants"), (["static", "C:\\x.exe", "--type", "3"], 2, "--type"),
        (["static", "C:\\x.exe", "--lang", "x" * 4000], 2, "not 4000 characters"),
        (["pe", "C:\\windows"], 3, "is a folder, not a file"), (["pe", "C:\\x\\com1.dll"], 3, "is a device"),
        (["static", "C:\\windows\\win.ini"], 0, "is not a Windows image, so nothing was scanned"),
        (["static", "C:\\x.exe", "--frobnicate"], 2, "unknown option"), (["pe", "a", "b"], 2, "unexpected argument"),
        (["help", "bogus"], 2, "unknown command 'bogus'"), (["static", "C:\\no\\such\\file.exe"], 3, "no such file"),
        (["pe", "C:\\no\\such\\file.dll"], 3, "no such file"), (["ini", "C:\\no\\such.ini"], 3, "no such file"),
        (["assembly"], 2, "needs a FILE"), (["assembly", "C:\\x.dll", "--no-filter"], 2, "unknown option"),
        (["ini", "C:\\windows\\win.ini", "no-section"], 1, "has no section [no-section]"),
        (["setup"], 2, "setup needs one COMMAND LINE"), (["setup", "C:\\no\\setup.exe"], 1, "setup.exe: File not found"),
    ]
    for args, code, text in table:
        r = run(a, args)
        expect(r.returncode == code and text in r.stderr, f"{str(args)[:80]}: exit {r.returncode}, {r.stderr!r}")
    doc = json.loads(run(a, ["static", "C:\\no\\such\\file.exe", "--json"]).stdout)
    expect(not doc["exists"] and doc["completed"] and doc["dependencies"] == [], "a missing file: complete, empty")
    # Without its lists the scan cannot run, and the person is told which file and why.
    with tempfile.TemporaryDirectory() as empty:
        for content, why in [(None, "does not exist"), ("<Filters><Exclude>", "not a well-formed XML document")]:
            if content is not None:
                with open(os.path.join(empty, "filters.xml"), "w") as f:
                    f.write(content)
            env = dict(os.environ, QV_SUPPORT_DIR="Z:" + empty.replace("/", "\\"))
            r = run(a, ["static", NOTEPAD], env=env)
            expect(r.returncode == 1 and "filters.xml" in r.stderr and why in r.stderr, f"no lists: {r.stderr!r}")


def pipe_holders(pipes):  # the command lines of the processes, other than this one, that hold one of the pipes named
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        if int(pid) == os.getpid():
            continue
        try:
            if any(os.readlink(f"/proc/{pid}/fd/{fd}") in pipes for fd in os.listdir(f"/proc/{pid}/fd")):
                found.append(open(f"/proc/{pid}/cmdline", "rb").read().split(b"\0")[0].decode(errors="replace"))
        except OSError:
            pass  # a process that ended, or one this user cannot look into
    return sorted(found)


def image(imports, exe=True, at=0x200, size=0):
    """An x64 image importing `imports`, its import table at file offset `at`, zeros up to `size` bytes."""
    names = [n.encode() + b"\0" for n in imports]
    data = b"".join(struct.pack("<12xI4x", 0x1014 + 20 * len(names) + len(b"".join(names[:i]))) for i in range(len(names)))
    data += bytes(20) + b"".join(names)
    h = bytearray(0x200)  # MZ, PE, the optional header's alignments, size, directory count and imports, .idata
    struct.pack_into("<2s22xH34xI", h, 0, b"MZ", 0x40, 0x80)
    struct.pack_into("<4sHH12xHHH30xII16xI48xI8xII", h, 0x80, b"PE\0\0", 0x8664, 1, 240, 0x22 if exe else 0x2022,
                     0x20B, 0x1000, 0x200, 0x2000 + len(data), 16, 0x1000, len(data))
    struct.pack_into("<8sIIII12xI", h, 0x188, b".idata", len(data), 0x1000, len(data), at, 0xC0000040)
    body = bytes(h) + bytes(at - 0x200) + data
    return body + bytes(max(0, size - len(body)))


def scan_json(a, path):  # the JSON document of a static scan; None when it failed or wrote none
    r = run(a, ["static", path, "--json"])
    try:
        return json.loads(r.stdout) if r.returncode == 0 else None
    except ValueError:
        return None


def case_hostile(a):
    tmp, done = tempfile.mkdtemp(prefix="qvscan-hostile-"), []
    put = lambda path, data: (os.makedirs(os.path.dirname(path), exist_ok=True), open(path, "wb").write(data))  # noqa

    def rewrite():  # cuts each DLL to 4 KiB and writes it back, over and over
        while not done:
            for i, data in enumerate(whole):
                with open(os.path.join(tmp, f"d{i}.dll"), "r+b") as f:
                    f.truncate(4096) if f.seek(0, 2) > 4096 else f.write(data[4096:])
    try:
        # 150 DLLs of 256 KiB with their imports at 252 KiB, rewritten while the tool scans them.
        whole = [image([f"d{i + 1}.dll"], False, 0x3F000, 0x40000) for i in range(150)]
        for i, data in enumerate(whole):
            put(os.path.join(tmp, f"d{i}.dll"), data)
        put(os.path.join(tmp, "app.exe"), image([f"d{i}.dll" for i in range(150)]))
        threading.Thread(target=rewrite, daemon=True).start()
        for round, doc in enumerate([scan_json(a, os.path.join(tmp, "app.exe")) for _ in range(3)]):
            expect(doc and {d["name"] for d in doc["dependencies"]} <= {f"d{i}.dll" for i in range(151)}, f"round {round}")
        done.append(True)
        # Linux paths: a folder past 260 characters, a '"' in names; the DLL beside the program is found.
        for folder in [os.path.join(tmp, "a" * 120, "b" * 120, "c" * 40), os.path.join(tmp, 'we"ird')]:
            put(os.path.join(folder, "beside.dll"), image([], False))
            put(os.path.join(folder, 'p"rog.exe'), image(["beside.dll"]))
            doc = scan_json(a, os.path.join(folder, 'p"rog.exe'))
            expect(doc and [d["missing"] for d in doc["dependencies"]] == [False], f"{folder[:60]}: {doc!r}"[:300])
        # A component beside its .dep file: what its sections name is listed, marked as coming from there.
        dep = os.path.join(tmp, "dep")
        put(os.path.join(dep, "comp.ocx"), image(["a.dll"], False))
        put(os.path.join(dep, "a.dll"), image([], False)), put(os.path.join(dep, "b.dll"), image([], False))
        put(os.path.join(dep, "comp.dep"), b"[comp.ocx]\r\nUses1=b.dll\r\n[comp.ocx <0409>]\r\nUses1=gone.dll\r\n")
        r = run(a, ["static", os.path.join(dep, "comp.ocx"), "--json", "--lang", "0409"])
        got = {d["name"]: (d["via"], d["missing"]) for d in json.loads(r.stdout or "{}").get("dependencies", [])}
        expect(got == {"a.dll": ("imports", False), "b.dll": ("dep", False), "gone.dll": ("dep", True)}, f"dep: {got}")
        # No support folder: one message naming it, before any scan; a command that reads no list still runs.
        gone = dict(os.environ, QV_SUPPORT_DIR=win(tmp + "/no support"))
        r = run(a, ["static", os.path.join(dep, "comp.ocx")], env=gone)
        expect(r.returncode == 1 and "the support folder " + win(tmp + "/no support") + " is missing" in r.stderr
               and r.stdout == "", f"no support: {r.returncode} {r.stderr!r}")
        expect(run(a, ["pe", os.path.join(dep, "comp.ocx")], env=gone).returncode == 0, "pe without support")
    finally:
        done.append(True)
        shutil.rmtree(tmp, ignore_errors=True)


def case_script(a):
    # A prefix of its own: registration entries must not reach the prefix the other tests share.
    tmp = tempfile.mkdtemp(prefix="qvscan-script-")
    env = dict(os.environ, QV_WINEPREFIX=os.path.join(tmp, "prefix"), WINEPREFIX=os.path.join(tmp, "prefix"))
    try:
        script = os.path.join(tmp, "client.js")
        with open(script, "w") as f:
            f.write('try { var util = new ActiveXObject("QVWIScanners.ScanUtil");\n'
                    '  var pe = util.PE("C:\\\\windows\\\\system32\\\\kernel32.dll");\n'
                    '  WScript.Echo("name=" + pe.Name + ";path=" + pe.Path + ";major=" + pe.MajorVersion);\n'
                    '  WScript.Echo("text=" + (util.PE("C:\\\\windows\\\\win.ini") === null));\n'
                    '} catch (e) { WScript.Echo("error=" + e.message); }\n')
        client = [a.emulator, "cscript.exe", "//nologo", "Z:" + script.replace("/", "\\")]
        r = run(a, ["register"], env=env)
        expect(r.returncode == 0 and "ScanUtil" in r.stdout, f"register: {r.returncode} {r.stdout} {r.stderr}")
        out = subprocess.run(client, capture_output=True, text=True, env=env).stdout.replace("\r", "")
        expect("name=kernel32.dll;path=C:\\windows\\system32;major=" in out and "text=true" in out, f"script {out!r}")
        expect("major=" in out and int(out.split("major=")[1].split()[0]) > 0, "the version came through IDispatch")
        # StaticScan from VBScript, by ProgID, with the sink a script makes.
        with open(os.path.join(tmp, "scan.vbs"), "w") as f:
            f.write('Set scan = CreateObject("QVWIScanners.StaticScan")\r\n'
                    'Set events = CreateObject("QVWIScanners.ScanEvents")\r\n'
                    f'ok = scan.ScanFile("{win(a.fixtures + "/walk/lib/upper.exe")}", events, True, "", 0)\r\n'
                    'WScript.Echo "ok=" & ok & " records=" & scan.Dependencies.Count & " found=" & events.Found & _\r\n'
                    '             " first=" & scan.Dependencies.Item(1).Name & " errors=" & events.Errors\r\n')
        out = subprocess.run([a.emulator, "cscript.exe", "//nologo", win(tmp + "/scan.vbs")], capture_output=True,
                             text=True, env=env, timeout=120).stdout.replace("\r", "")
        expect(re.match(r"ok=True records=1 found=[1-9][0-9]* first=gamma\.dll errors=$", out.strip(), re.I), f"vbs {out!r}")
        # A VBScript client of the dynamic scanner, its events through WScript.CreateObject's prefix.
        with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "dep_checker_client.vbs")) as f:
            vbs = f.read().replace("HOST", win(a.fixtures + "/trace/host.exe"))
        with open(os.path.join(tmp, "client.vbs"), "w") as f:
            f.write(vbs.replace("PLUGIN", win(a.fixtures + "/trace/plugins/plugin.dll")))
        r = subprocess.run([a.emulator, a.script_host, win(tmp + "/client.vbs")], capture_output=True, text=True,
                           env=env, timeout=120)
        expect(r.returncode == 7 and r.stdout.strip() == "finished=True found=plugin.dll; children=1 running=False bags=1",
               f"VBScript client: {r.returncode} {r.stdout!r}")
        expect(run(a, ["unregister"], env=env).returncode == 0, "unregister")
        out = subprocess.run(client, capture_output=True, text=True, env=env).stdout
        expect("error=" in out and "name=" not in out, f"after unregister: {out!r}")
    finally:
        subprocess.run(["wineserver", "-k"], env=env)
        shutil.rmtree(tmp, ignore_errors=True)


def win(path):
    return "Z:" + path.replace("/", "\\")


# The modules the loader of each traced process logs under WINEDEBUG=+loaddll, by the process's program: the
# lines of the thread that loaded a program, up to the next program that thread loads.
def loader_log(stderr):
    by_thread, programs = {}, {}
    for thread, path in re.findall(r'^([0-9a-f]{4}):trace:loaddll:build_module Loaded L"(.*?)" at ', stderr, re.M):
        path = path.replace("\\\\", "\\").lower()
        if path.endswith(".exe"):
            programs[thread] = path
            by_thread[path] = set()
        elif thread in programs:
            by_thread[programs[thread]].add(path)
    return by_thread


def case_trace(a):
    host, plugin = win(a.fixtures + "/trace/host.exe"), win(a.fixtures + "/trace/plugins/plugin.dll")
    # The plug-in is loaded by path at run time: only the dynamic scan sees it.
    r = run(a, ["trace", host, "load", plugin, "--json"])
    doc = json.loads(r.stdout)
    deps = [d["folder"].lower() + "\\" + d["name"].lower() for d in doc["bags"][0]["dependencies"]]
    expect(r.returncode == 0 and doc["ended"] == "finished" and deps == [plugin.lower()], f"trace --json: {r.stdout}")
    expect(doc["bags"][0]["dependencies"][0]["selfRegistering"] and doc["bags"][0]["dependencies"][0]["via"] == "run",
           "the plug-in registers itself, and the run named it")
    r = run(a, ["static", host, "--json", "--no-filter"])
    static = json.loads(r.stdout)["dependencies"]
    expect(r.returncode == 0 and "plugin.dll" not in [d["name"].lower() for d in static], f"static scan: {static}")
    # Live lines as the modules come, the children, then the table; a tag names the bag.
    r = run(a, ["trace", host, "--tag", "first run", "cycle", "1000", plugin, "child", f'"{host}" load "{plugin}"'])
    lines = r.stdout.splitlines()
    expect(r.returncode == 0 and lines.count("  loaded " + plugin) == 1, f"one live line per module: {r.stdout}")
    started = [l for l in lines if l.startswith("  child process ") and l.endswith(" started")]
    expect(len(started) == 1 and started[0].replace("started", "ended") in lines, "child start and exit lines")
    expect("bag 'first run':" in lines and lines[-1].startswith("1 files loaded"), f"the table: {lines[-4:]}")
    # Time-out: the target is ended and what it loaded is still listed; a missing engine is named.
    r = run(a, ["trace", "--timeout", "1", host, "load", plugin, "sleep", "60000", "--json"])
    doc = json.loads(r.stdout)
    expect(r.returncode == 4 and doc["ended"] == "time-out" and len(doc["bags"][0]["dependencies"]) == 1
           and "time-out of 1 s" in r.stderr, f"time-out: {r.returncode} {r.stderr!r}")
    r = run(a, ["trace", host], env=dict(os.environ, QV_PROGRAMS_DIR="C:\\no engine here"))
    expect(r.returncode == 1 and "C:\\no engine here\\TraceHost64.exe" in r.stderr, f"no engine: {r.stderr!r}")
    # An engine killed in the middle: the tool notices by the engine's process, says so, and lists what came.
    tracer = subprocess.Popen([a.emulator, a.tool, "trace", host, "load", plugin, "sleep", "60000"], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, errors="replace")
    time.sleep(4)
    subprocess.run([a.emulator, "taskkill.exe", "/f", "/im", "TraceHost64.exe"], capture_output=True)
    out, errors = tracer.communicate(timeout=60)
    expect(tracer.returncode == 1 and "debug engine ended before the target" in errors and plugin in out,
           f"engine killed: {tracer.returncode} {errors!r}")
    for args, code, text in [(["trace"], 2, "needs an APP"), (["trace", "C:\\no\\app.exe"], 3, "no such file"),
                             (["trace", host, "--timeout", "0"], 2, "--timeout wants"),
                             (["attach", "12x"], 2, "wants a process ID"), (["attach", "4000000000"], 3, "no process"),
                             (["attach", "1", "--dir", "C:\\"], 2, "unexpected argument")]:
        r = run(a, args)
        expect(r.returncode == code and text in r.stderr, f"{args}: exit {r.returncode}, {r.stderr!r}")

    # The witness: the loader's log of the same run. Every module it loaded is recorded; the records beyond
    # it are ntdll.dll, which Wine maps before its log begins, and tzres.dll, mapped as a resource-only image,
    # which the loader does not log. "native" and "builtin" modules both count.
    names = set()
    with open(os.path.join(a.fixtures, "..", "Support", "filters.xml")) as f:
        names = set(re.findall(r'<File name="([^"]+)"', f.read().split("<Exclude>")[1]))
    for program, args in [("C:\\windows\\system32\\reg.exe", ["query", "HKCU\\Software"]), (host, ["load", plugin])]:
        env = dict(os.environ, WINEDEBUG="+loaddll")
        for filtering in [["--no-filter"], []]:
            r = run(a, ["trace", "--json", program] + filtering + args, env=env)
            recorded = {d["folder"].lower() + "\\" + d["name"].lower() for d in json.loads(r.stdout)["bags"][0]["dependencies"]}
            witness = loader_log(r.stderr).get(program.lower(), set())
            if not filtering:
                witness = {p for p in witness if p.rsplit("\\", 1)[1] not in names}
            extra = {p.rsplit("\\", 1)[1] for p in recorded - witness}
            expect((witness or not filtering) and witness <= recorded and extra <= {"ntdll.dll", "tzres.dll"},
                   f"{program} {filtering}: loader {sorted(witness)} vs trace {sorted(recorded)}")
        expect(recorded == ({plugin.lower()} if program == host else set()), f"{program}: filtered {recorded}")


def case_assembly(a):
    d = a.fixtures + "/dotnet"
    # The x86 native library on the Path: an AnyCPU program with no component asks for x86 libraries.
    env = dict(os.environ, WINEPATH=win(d + "/native32"))
    assembly = lambda path, *more: run(a, ["assembly", win(d + path)] + list(more), env=env)  # noqa
    document = lambda path: json.loads(assembly(path, "--json").stdout)  # noqa
    token = "a964ced94cf79d20"
    r = assembly("/app/App.exe", "--json")
    doc = json.loads(r.stdout)
    refs = {x["name"]: x for x in doc["references"]}
    expect(r.returncode == 0 and doc["assembly"] == {"name": "App", "version": "1.0.0.0", "culture": "neutral",
                                                     "token": None, "machine": "MSIL"}, f"App: {doc['assembly']}")
    expect(doc["summary"]["references"] == len(refs) and {"Lib.dll", "Chain1.dll", "kernel32.dll"} <= set(refs), refs)
    lib = refs.get("Lib.dll", {})
    expect(lib.get("found") and lib["kind"] == "assembly" and lib["version"] == "1.2.3.4"
           and lib["token"] == token.upper() and lib["path"].lower() == win(d + "/app/Lib.dll").lower()
           and lib["identity"] == f"Lib, Version=1.2.3.4, Culture=neutral, PublicKeyToken={token}", f"Lib: {lib}")
    chain1 = refs.get("Chain1.dll", {})
    expect(chain1.get("found") and chain1["identity"] == "Chain1, Version=1.0.0.0, Culture=neutral, PublicKeyToken=null"
           and "Chain2.dll" not in refs, f"Chain1 found, Chain2 not a direct reference: {chain1}")
    for name, path in [("kernel32.dll", None), ("user32.dll", None), ("qvnative.dll", d + "/native32/qvnative.dll")]:
        x = refs.get(name, {})
        expect(x.get("kind") == "native" and x["machine"] == "x86" and (path is None or x["path"] == win(path)),
               f"native {name}: {x}")
    lines = assembly("/app/App.exe").stdout.splitlines()
    expect(lines[:5] == ["name     App", "version  1.0.0.0", "culture  neutral", "token    -", "machine  MSIL"]
           and any(l.split()[:5] == ["Lib.dll", "assembly", "-", "1.2.3.4", token.upper()] for l in lines)
           and lines[-1].startswith(f"{len(refs)} references, "), f"App as text: {lines}")
    # The missing link is Chain2's, shown with the identity its reference asks for.
    chain3 = {x["name"]: x for x in document("/app/Chain2.dll")["references"]}.get("Chain3")
    expect(chain3 == {"name": "Chain3", "kind": "assembly", "found": False, "path": None, "machine": None,
                      "version": None, "token": None,
                      "identity": f"Chain3, Version=3.0.0.0, Culture=neutral, PublicKeyToken={token}"}, f"{chain3}")
    part = [(x["name"], x["kind"], x["found"]) for x in document("/app/Multi.dll")["references"]]
    expect([x for x in part if x[1] != "assembly"] == [("Part.netmodule", "module file", True)], f"Multi: {part}")
    # The machine from the CLI header, and the native machine asked for.
    x86, x64 = document("/bits/X86.exe"), document("/bits/X64.exe")
    natives = [(x["name"], x["machine"], x["found"]) for x in x64["references"] if x["kind"] == "native"]
    expect(x86["assembly"]["machine"] == "X86" and x64["assembly"]["machine"] == "Amd64"
           and natives == [("qvnative.dll", "x64", False)], f"bits: {x86['assembly']} {x64}")
    with tempfile.TemporaryDirectory() as tmp:
        with open(d + "/app/Lib.dll", "rb") as f, open(tmp + "/corrupt.dll", "wb") as g:
            g.write(f.read().replace(b"BSJB", b"XXXX"))
        # A file that is no assembly is told so on standard output; a missing or corrupt one on standard error.
        for path, code, text in [(d + "/native64/qvnative.dll", 0, "not an assembly: "),
                                 (d + "/app/Part.netmodule", 0, "not an assembly: a module of a multi-file assembly"),
                                 (d + "/no/such.dll", 3, "no such file"), (tmp + "/corrupt.dll", 1, "corrupt")]:
            r, j = run(a, ["assembly", win(path)]), run(a, ["assembly", win(path), "--json"])
            expect(r.returncode == j.returncode == code and text in (r.stderr if code else r.stdout)
                   and (code != 1 or "(0x8013110E)" in r.stderr) and json.loads(j.stdout)["assembly"] is None,
                   f"{path}: {r.returncode} {r.stdout!r} {r.stderr!r}")
    # The static scan goes down the whole tree: each assembly once (the cycle too), the chain's end missing.
    deps = json.loads(run(a, ["static", win(d + "/app/App.exe"), "--json"], env=env).stdout)["dependencies"]
    found = [x["name"] for x in deps if not x["missing"]]
    expect({"Lib.dll", "Chain1.dll", "Chain2.dll", "CycleA.dll", "CycleB.dll", "Multi.dll", "Part.netmodule",
            "qvnative.dll"} <= set(found) and len(found) == len(set(found))
           and "Chain3" in [x["name"] for x in deps if x["missing"]], f"static scan of App.exe: {deps}")


def case_vbp(a):
    tmp = tempfile.mkdtemp(prefix="qvscan-vbp-")
    put = lambda name, data: open(os.path.join(tmp, name), "wb").write(data if type(data) is bytes else data.encode())  # noqa
    w = lambda name: win(os.path.join(tmp, name))  # noqa
    for source, name in [("lib/noimports.exe", "app.exe"), ("app/beta.dll", "ctl.ocx"), ("lib/epsilon.dll", "helper.dll"),
                         ("lib/delta.dll", "delta.dll"), ("lib/gamma.dll", "gamma.dll")]:
        shutil.copy(os.path.join(a.fixtures, "walk", source), os.path.join(tmp, name))
    control = "{6B1F3A52-9C4E-4D7A-8E21-3F5A7C9D0E14}#1.0#0"
    lines = ["Type=Exe", r"Reference=*\G{00020430-0000-0000-C000-000000000046}#2.0#0#C:\windows\system32\stdole2.tlb#OLE "
             "Automation", f"Object={control}; ctl.ocx", "Form=main.frm", "Form=gone.frm", 'ExeName32="app.exe"']
    put("app.vbp", "\r\n".join(lines) + "\r\n"), put("clean.vbp", "\r\n".join(lines[:4] + lines[5:]) + "\r\n")
    put("main.frm", f'VERSION 5.00\r\nObject = "{control}"; "ctl.ocx"\r\nBegin VB.Form Main\r\n')
    put("ctl.dep", "[ctl.ocx]\r\nUses1=helper.dll\r\n")
    put("loop.dep", "[app.exe]\r\nUses1=a.dll\r\n[a.dll]\r\nUses1=b.dll\r\n[b.dll]\r\nUses1=a.dll\r\n")
    put("group.vbg", "VBGROUP 5.0\r\nStartupProject=app.vbp\r\nProject=app.vbp\r\nProject=nowhere.vbp\r\n")
    put("garbage.vbp", bytes(range(256)) * 8), put("utf16.vbp", "\r\n".join(lines).encode("utf-16"))
    try:
        for args, code, text in [(["app.vbp"], 3, "stopped: " + w("app.vbp") + " names forms that do not exist: gone.frm"),
                                 (["group.vbg"], 3, "gone.frm"), (["group.vbg", "--keep-going"], 0, "warning: the project "
                                                                  + w("nowhere.vbp") + " does not exist"),
                                 (["clean.vbp", "--dep", "loop.dep"], 0, "name each other in a circle"),
                                 (["garbage.vbp"], 0, ""), (["utf16.vbp"], 0, ""),
                                 (["no.vbp"], 3, "no such file"), (["clean.vbp", "--dep", "no.dep"], 3, "no such file"),
                                 (["ctl.dep"], 2, "neither a project"), (["app.vbp", "--frob"], 2, "unknown option")]:
            paths = [w(x) if "." in x else x for x in args]
            r, j = run(a, ["vbp"] + paths), run(a, ["vbp", "--json"] + paths)
            expect(r.returncode == j.returncode == code and text in r.stderr, f"{args}: {r.returncode} {r.stderr!r}")
            doc = json.loads(j.stdout) if code != 2 else {}
            # A file with no readable key names no built file: the project's folder stands in its place, alone.
            expect(code == 2 or (doc["completed"] == (code == 0) and doc["stopped"] == (code == 3) and not doc["cancelled"]
                                 and (text or [f["name"] for g in doc["groups"] for f in g["files"]]
                                      == [os.path.basename(tmp) + "\\"])), f"{args}: {doc}")
        # The group names its project twice: each file once; the form and the project that are not there.
        r = run(a, ["vbp", w("group.vbg"), "--keep-going", "--json", "--no-filter"])
        doc = json.loads(r.stdout)
        groups = {g["name"].lower(): [(f["name"].lower(), f["missing"], f["folder"]) for f in g["files"]]
                  for g in doc["groups"]}
        files = groups.get(w("group.vbg").lower(), [])
        expect(r.returncode == 0 and doc["completed"] and doc["groups"][0]["project"] and doc["missing"] == [
            {"file": "gone.frm", "project": w("app.vbp")}, {"file": w("nowhere.vbp"), "project": None}], f"group: {doc}")
        expect(len(files) == len({f[0] for f in files}) and {("stdole2.tlb", False, "c:\\windows\\system32")}
               | {(n, False, win(tmp).lower()) for n in ["app.exe", "ctl.ocx", "helper.dll"]}
               <= {(n, m, d.lower()) for n, m, d in files}, f"group: {files}")
        # The import closure of the control, and what its .dep file names.
        expect({(n, m) for n, m, _ in groups.get(w("ctl.ocx").lower(), []) if n != "kernel32.dll"}
               == {("delta.dll", False), ("epsilon.dll", True), ("gamma.dll", False), ("helper.dll", False)},
               f"ctl.ocx: {groups}")
        text = run(a, ["vbp", w("app.vbp"), "--keep-going"]).stdout
        expect(text.startswith("project " + w("app.vbp") + ":\nNAME") and "\nimports of " + w("ctl.ocx") + ":\n" in text,
               f"text: {text!r}")
        # Ctrl-C while the references are scanned: the next question cancels, and what was found is listed.
        system = sorted(d for d in os.listdir(a.prefix + "/drive_c/windows/system32") if d.endswith(".dll"))
        put("big.vbp", "".join(f"Reference=*\\G{control[:38]}#1.0#0#C:\\windows\\system32\\{d}#x\r\n" for d in system))
        scan = subprocess.Popen([a.emulator, a.tool, "vbp", w("big.vbp"), "--json"], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, errors="replace")
        next((line for line in iter(scan.stderr.readline, "") if line.startswith("Scanning ")), None)
        os.kill(scan.pid, signal.SIGINT)  # Wine's console turns it into Ctrl-C
        out, errors = scan.communicate(timeout=120)
        expect(scan.returncode == 4 and json.loads(out)["cancelled"] and "Scan cancelled by the user" in errors
               and len(json.loads(out)["groups"]) < len(system), f"Ctrl-C: {scan.returncode} {errors[-300:]!r}")
        env = dict(os.environ, QV_WINEPREFIX=os.path.join(tmp, "prefix"), WINEPREFIX=os.path.join(tmp, "prefix"))
        # The build, with the stand-in compiler as the Make command of .vbp files in a prefix of its own.
        compiler = os.path.join(os.path.dirname(a.tool), "vb_compiler.exe")
        for key, value in [(r"HKCR\.vbp", "QvTest.Project"), (r"HKCR\QvTest.Project\shell\Make\command",
                                                               win(compiler) + ' "%1" /make')]:
            subprocess.run([a.emulator, "reg.exe", "add", key, "/ve", "/d", value, "/f"], env=env, capture_output=True)
        put("broken.vbp", "\r\n".join(lines[:4] + lines[5:] + ["BuildOutcome=fail"]) + "\r\n")
        for more, code in [([], 1), (["--keep-going"], 0)] if os.path.exists(compiler) else []:
            r = run(a, ["vbp", w("broken.vbp"), "--rebuild", "--json"] + more, env=env)
            said = (json.loads(r.stdout)["buildFailed"] or {}).get("compilerSays", "")
            expect(r.returncode == code and "line 3 : Variable not defined" in said
                   and "the compiler's last line: Compile error in file" in r.stderr, f"build {more}: {r.stderr!r}")
        # A JScript client: the server calls the sink's functions by name and takes a returned boolean.
        put("client.js", 'var s = new ActiveXObject("QVWIScanners.VBPScan"), n = 0;\n'
                         'var sink = {PercentDone: function (p) { n++; }, QueryCancel: function () { return false; },\n'
                         '  Status: function (t) { WScript.Echo("status " + t); },\n'
                         '  VBBuildFailed: function (c) { return true; },\n'
                         '  FileNotFound: function (p, f) { WScript.Echo("missing " + f); return true; }};\n'
                         f'try {{ s.Scan({json.dumps(w("app.vbp"))}, "", sink, true, false, "");\n'
                         '  WScript.Echo("percents " + (n > 0) + " groups " + (s.DepFileGroups !== null));\n'
                         '} catch (e) { WScript.Echo("error " + e.message); }\n')
        expect(run(a, ["register"], env=env).returncode == 0, "register")
        out = subprocess.run([a.emulator, "cscript.exe", "//nologo", w("client.js")], capture_output=True, text=True,
                             env=env, cwd=tmp, timeout=120).stdout.replace("\r", "").splitlines()
        expect("missing gone.frm" in out and "status Scan completed" in out and "percents true groups true" in out
               and "status Scanning " + w("ctl.ocx") in out, f"JScript client: {out}")
    finally:
        subprocess.run(["wineserver", "-k"], env=dict(os.environ, WINEPREFIX=os.path.join(tmp, "prefix")))
        shutil.rmtree(tmp, ignore_errors=True)


def case_msm(a):
    """Merge modules built by msibuild from table texts: versions, machines, languages, broken ones, absent ones."""
    tmp = tempfile.mkdtemp(prefix="qvscan-msm-")
    mods = os.path.join(tmp, "modules")
    os.makedirs(mods)

    def module(msm, version, language, is64, files, subject, signed=True):
        rows = {"ModuleSignature": ("ModuleID\tLanguage\tVersion\ns72\ti2\ts32\nModuleSignature\tModuleID\tLanguage\n"
                                    f"{msm[:-4]}.1111_2222\t{language}\t{version}\n"),
                "Component": ("Component\tComponentId\tDirectory_\tAttributes\tCondition\tKeyPath\ns72\tS38\ts72\ti2\tS255\t"
                              "S72\nComponent\tComponent\nC\t{11111111-2222-3333-4444-555555555555}\tTARGETDIR\t"
                              f"{256 if is64 else 0}\t\t\n"),
                "File": "File\tComponent_\tFileName\tFileSize\tVersion\tLanguage\tAttributes\tSequence\n"
                        "s72\ts72\tl255\ti4\tS72\tS20\tI2\ti2\nFile\tFile\n" + "".join(
                            f"f{i}\t{c}\tSHORT{i}.DLL|{n}\t1\t{v}\t{language}\t\t{i + 1}\n" for i, (n, v, c) in enumerate(files)),
                "Directory": "Directory\tDirectory_Parent\tDefaultDir\ns72\tS72\tl255\nDirectory\tDirectory\nTARGETDIR\t\tSourceDir\n"}
        args = []
        for table, text in rows.items():
            if signed or table != "ModuleSignature":
                open(os.path.join(tmp, table + ".idt"), "w").write(text)
                args += ["-i", os.path.join(tmp, table + ".idt")]
        subprocess.run(["msibuild", os.path.join(mods, msm)] + args + ["-s", subject], check=True)

    try:
        module("beta1.msm", "1.0.0.0", 0, True, [("beta.dll", "1.0.0.0", "C")], "Beta Library 1.0")
        module("beta2.msm", "2.0.0.0", 0, True, [("beta.dll", "2.0.0.0", "C"), ("orphan.dll", "", "NoSuch")], "Beta 2.0")
        module("gamma32.msm", "1.0", 0, False, [("gamma.dll", "", "C")], "Gamma for x86")
        module("tr_exact.msm", "1.2.3.4", 1033, True, [("translations.dll", "1.2.3.4", "C")], "Translations 1.2.3.4")
        module("tr_fr.msm", "10.0", 1036, True, [("translations.dll", "10.0", "C")], "Translations in French")
        module("tr_new.msm", "9.0", 1033, True, [("translations.dll", "9.0", "C")], "Translations 9.0")
        module("unsigned.msm", "1.0", 0, True, [("x.dll", "", "C")], "No signature", signed=False)
        open(os.path.join(mods, "garbage.msm"), "wb").write(b"\0" * 600)
        open(os.path.join(mods, "modules.ini"), "w").write("[Alpha.msm]\nSubject=Alpha Runtime\nPlatform=x64\nFile1=alpha.dll\n")
        app = a.fixtures + "/walk/app/app.exe"
        r = run(a, ["static", app, "--merge-modules", mods, "--json"])
        got = {d["name"]: (d["folder"], d["missing"], d["mergeModule"]) for d in json.loads(r.stdout)["dependencies"]}
        expect(r.returncode == 0 and got.get("Beta 2.0") == ("beta2.msm", False, True)
               and got.get("Alpha Runtime") == ("Alpha.msm", True, True)
               and not {"beta.dll", "alpha.dll", "delta.dll", "epsilon.dll"} & set(got)
               and all(x in r.stderr for x in ["garbage.msm: not an installer database", "unsigned.msm: no ModuleSignature",
                                               "orphan.dll belongs to the component NoSuch"]), f"modules: {got} {r.stderr!r}")
        plain = {d["name"]: d["mergeModule"] for d in json.loads(run(a, ["static", app, "--json"]).stdout)["dependencies"]}
        expect(plain.get("beta.dll") is False and "delta.dll" in plain, f"without modules: {plain}")
        env = dict(os.environ, QV_MERGE_MODULES=win(mods))
        text = run(a, ["static", app], env=env).stdout
        expect(text.count("--G---") == 1 and text.count("M-G---") == 1, f"the variable, as text: {text!r}")
        # The exact version before the newest, and only a module that speaks the file's language (1033).
        put = os.path.join(tmp, "tr")
        os.makedirs(put)
        open(os.path.join(put, "uses.exe"), "wb").write(image(["translations.dll"]))
        shutil.copy(a.fixtures + "/version/translations.dll", put)
        deps = json.loads(run(a, ["static", put + "/uses.exe", "--merge-modules", mods, "--json"]).stdout)["dependencies"]
        expect([(d["name"], d["folder"]) for d in deps] == [("Translations 1.2.3.4", "tr_exact.msm")], f"exact: {deps}")
        os.rename(os.path.join(mods, "tr_exact.msm"), os.path.join(tmp, "tr_exact.msm"))  # then the newest in 1033
        deps = json.loads(run(a, ["static", put + "/uses.exe", "--merge-modules", mods, "--json"]).stdout)["dependencies"]
        expect([(d["name"], d["folder"]) for d in deps] == [("Translations 9.0", "tr_new.msm")], f"newest: {deps}")
        os.rename(os.path.join(tmp, "tr_exact.msm"), os.path.join(mods, "tr_exact.msm"))
        doc = json.loads(run(a, ["msm", mods, "--json"]).stdout)
        listed = [(m["key"], m["present"], [(f["name"], f["machine"]) for f in m["files"]]) for m in doc["modules"]]
        expect([m[0] for m in listed] == ["beta1.msm", "beta2.msm", "gamma32.msm", "tr_exact.msm", "tr_fr.msm", "tr_new.msm",
                                          "Alpha.msm"] and listed[2][2] == [("gamma.dll", "x86")]
               and listed[-1][1:] == (False, [("alpha.dll", "x64")]), f"msm: {listed}")
        expect(run(a, ["msm", tmp + "/none"]).returncode == 3, "a folder that does not exist")
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def case_target(a):
    """What the target machine would say: delay-loaded DLLs, entry points, wrong-machine copies, API-set
    contracts, the target profile's framework assemblies; a profile missing or malformed."""
    fx = lambda rel: os.path.join(a.fixtures, *rel.split("/"))  # noqa: E731
    by_name = lambda doc: {d["name"].lower(): d for d in doc["dependencies"]}  # noqa: E731
    tmp = tempfile.mkdtemp()
    try:
        contracts = os.path.join(tmp, "contracts.exe")
        with open(contracts, "wb") as f:
            f.write(image(["api-ms-win-core-kernel32-legacy-l1-1-6.dll", "ext-ms-win-nowhere-l1-1-0.dll",
                           "API-MS-WIN-CORE-SYNCH-L1-2-0.dll", "mine.dll"]))
        bad = os.path.join(tmp, "bad.json")
        with open(bad, "w") as f:
            f.write('{"name": "bad", "systemFiles": [1, 2')
        # (arguments, {record: (via, missing, filterable, providedBy, host)}, summary keys, words in the table)
        rows = [
            (["target/delay/delayapp.exe"], {"shipped.dll": ("delay", False, False, None, None),
                                             "helper.dll": ("delay", False, False, None, None),
                                             "absent.dll": ("delay", True, False, None, None)},
             {"missing": 1, "delayLoadedMissing": 1}, ["1 missing, 1 of them delay-loaded", "------L-"]),
            (["target/delay/delayapp.exe", "--no-extensions"], {}, {"missing": 0}, ["0 files, 0 missing"]),
            (["dotnet/framework/Framework.dll"], {"vendor.widgets": ("imports", True, False, None, None)},
             {"missing": 1, "providedByTarget": 6}, ["6 provided by the target"]),
            (["dotnet/framework/Framework.dll", "--target", "windows-x64"], None, {"missing": 7}, []),
            (["dotnet/framework/Framework.dll", "--no-filter"], None, {"missing": 1, "filterable": 6},
             ["System.Core: provided by the target"]),
            ([contracts], {"mine.dll": ("imports", True, False, None, None)}, {"missing": 1}, []),
            ([contracts, "--no-filter"], {
                "api-ms-win-core-kernel32-legacy-l1-1-6.dll": ("imports", False, True, "os", "kernel32.dll"),
                "ext-ms-win-nowhere-l1-1-0.dll": ("imports", False, True, "os", None),
                "api-ms-win-core-synch-l1-2-0.dll": ("imports", False, True, "os", "kernelbase.dll")}, None,
             ["resolved to kernel32.dll", "ext-ms-win-nowhere-l1-1-0.dll: API-set contract of the operating system"]),
        ]
        for args, records, summary, words in rows:
            path = args[0] if os.path.isabs(args[0]) else fx(args[0])
            r = run(a, ["static", path] + args[1:] + ["--json"])
            doc = json.loads(r.stdout or "{}")
            got = by_name(doc) if "dependencies" in doc else {}
            for name, (via, missing, filterable, provided, host) in (records or {}).items():
                d = got.get(name, {})
                expect((d.get("via"), d.get("missing"), d.get("filterable"), d.get("providedBy"), d.get("host")) ==
                       (via, missing, filterable, provided, host), f"{args} {name}: {d}")
            if records is not None and "--no-filter" not in args:
                expect(set(got) == set(records), f"{args}: records {sorted(got)}")
            for key, value in (summary or {}).items():
                expect(doc.get("summary", {}).get(key) == value, f"{args}: summary {key} {doc.get('summary')}")
            text = run(a, ["static", path] + args[1:]).stdout
            for word in words:
                expect(word in text, f"{args}: {word!r} in {text!r}")
        # Entry points and a copy of another machine, as the table tells them.
        for rel, word in [("target/entry/entryapp.exe", "lacking.dll lacks absent_fn (called by "),
                          ("target/machine/wrongapp.exe", "only32.dll: x86 copy at ")]:
            text = run(a, ["static", fx(rel)]).stdout
            expect(word in text, f"{rel}: {text!r}")
        # A profile that cannot be read is named, and the scan goes on without it.
        for target, words in [("nosuch", "cannot be read"), (bad, "is malformed")]:
            r = run(a, ["static", fx("dotnet/framework/Framework.dll"), "--target", target, "--json"])
            doc = json.loads(r.stdout or "{}")
            expect(r.returncode == 0 and words in r.stderr and doc.get("summary", {}).get("missing") == 7,
                   f"--target {target}: {r.returncode} {r.stderr!r}")
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def case_graph(a):
    """Why a file is needed: the tree, the chains of each missing file in the table and in JSON, `why`, the
    picture rendered by dot, the help of every command, the version, and --fail-on-missing's exit 5."""
    fx = lambda rel: os.path.join(a.fixtures, *rel.split("/"))  # noqa: E731
    app, delay = fx("walk/app/app.exe"), fx("target/delay/delayapp.exe")
    tree = run(a, ["static", app, "--tree"]).stdout
    expect(tree.startswith("app.exe\n  alpha.dll\n    app.exe (see above)\n    GAMMA.DLL  MISSING\n  beta.dll\n")
           and "\n  missing_one.dll  MISSING\n" in tree, f"tree: {tree!r}")
    tree = run(a, ["static", delay, "--tree"]).stdout
    expect(tree.startswith("delayapp.exe\n  shipped.dll [delay]\n    helper.dll\n  absent.dll [delay]  MISSING\n"),
           f"delay tree: {tree!r}")
    table = run(a, ["static", app]).stdout
    expect("  GAMMA.DLL needed by: beta.dll <- app.exe (+1 more)\n" in table
           and "  missing_one.dll needed by: app.exe\n" in table, f"needed by: {table!r}")
    doc = scan_json(a, app) or {"dependencies": []}
    needed = {d["name"]: (d.get("neededBy"), d.get("neededByMore")) for d in doc["dependencies"] if d["missing"]}
    expect(needed.get("GAMMA.DLL") == ([["beta.dll", "app.exe"], ["alpha.dll", "app.exe"]], None)
           and needed.get("missing_one.dll") == ([["app.exe"]], None) and all(v[0] for v in needed.values()),
           f"neededBy: {needed}")
    # why: every chain shortest first; a name not in the closure is exit 3; a path is taken by its name.
    for args, code, words in [([app, "gamma.dll"], 0, "GAMMA.DLL <- beta.dll <- app.exe\nGAMMA.DLL <- alpha.dll <- app.exe\n"),
                              ([app, "C:\\x\\Missing_One.dll"], 0, "missing_one.dll <- app.exe\n"),
                              ([delay, "helper.dll"], 0, "helper.dll <- shipped.dll <- delayapp.exe\n"),
                              ([app, "kernel32.dll"], 3, "as a file of the system"),
                              ([app, "no such.dll"], 3, "no such.dll is not in the closure of app.exe")]:
        r = run(a, ["why"] + args)
        expect(r.returncode == code and words in (r.stdout if code == 0 else r.stderr),
               f"why {args}: {r.returncode} {r.stdout!r} {r.stderr!r}")
    # The picture, drawn by dot: every shown file a node, the missing one red, the delay edges dashed.
    tmp = tempfile.mkdtemp()
    try:
        graph, svg = os.path.join(tmp, "g.dot"), os.path.join(tmp, "g.svg")
        run(a, ["static", delay, "--dot", graph])
        drawn = subprocess.run(["dot", "-Tsvg", graph, "-o", svg], capture_output=True, text=True)
        picture = open(svg).read() if drawn.returncode == 0 else ""
        expect(all(f">{n}</text>" in picture for n in ["delayapp.exe", "shipped.dll", "helper.dll", "absent.dll",
                                                        "system files"])
               and 'stroke="red"' in picture and 'stroke-dasharray="5,2"' in picture, f"dot: {drawn.stderr!r}")
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    # --fail-on-missing: exit 5 and a line that names what is missing; delay-loaded files only with =all.
    for args, code, words in [([app], 0, ""), ([app, "--fail-on-missing"], 5, "5 needed files are missing: "),
                              ([delay, "--fail-on-missing"], 0, "nothing needed is missing (1 delay-loaded not counted)"),
                              ([delay, "--fail-on-missing=all"], 5, "1 needed file is missing: absent.dll")]:
        r = run(a, ["static"] + args + ["--json"])
        expect(r.returncode == code and words in r.stderr and json.loads(r.stdout)["file"],
               f"fail on missing {args}: {r.returncode} {r.stderr!r}")
    # Help of the tool and of each command, from the option tables; the version.
    general = run(a, ["--help"])
    commands = re.findall(r"qvscan (\w+) ", general.stdout.split("\n\n")[0])
    expect(general.returncode == 0 and {"static", "why", "trace", "vbp"} <= set(commands), f"help: {general.stdout!r}")
    for args in (["help", "why"], ["trace", "--help"]):
        r = run(a, args)
        expect(r.returncode == 0 and r.stdout.startswith("usage: qvscan " + args[args[0] == "help"]), f"{args}")
    options = run(a, ["static", "--help"]).stdout
    expect(all(o in options for o in ["--tree", "--dot FILE", "--fail-on-missing=all", "--target NAME"]), options)
    version = run(a, ["--version"])
    expect(version.returncode == 0 and re.fullmatch(r"qvscan \d+\.\d+\.\d+(\.\d+)?\n", version.stdout), version.stdout)


def case_installer(a):
    """From a scan to an installed application: --wxs (stable across runs), wixl, msiexec /i into a fresh prefix,
    the files at their places, the installed program's scan missing nothing it did not miss before, msiexec /x
    leaving nothing behind; bundle into a folder and the bundled program's scan likewise."""
    tmp = tempfile.mkdtemp()
    fresh = os.path.join(tmp, "prefix")
    env = dict(os.environ, QV_WINEPREFIX=fresh, WINEPREFIX=fresh, WINEDEBUG="-all")
    missing = lambda path, e=None: {d["name"].lower() for d in json.loads(run(a, ["static", path, "--json"], env=e).stdout)["dependencies"] if d["missing"]}  # noqa: E731
    try:
        subprocess.run(["wineboot", "-i"], env=env, capture_output=True, timeout=300)
        subprocess.run(["wineserver", "-w"], env=env, timeout=300)
        for rel, folder, files in [("walk/app/app.exe", "app", ["app.exe", "alpha.dll", "beta.dll", "notpe.dll"]),
                                   ("dotnet/app/App.exe", "App", ["App.exe", "Lib.dll", "Chain1.dll", "Part.netmodule"]),
                                   ("vb/sample.vbp", "sample", ["sample.exe", "grid.ocx", "gridhelp.dll", "chart.ocx"])]:
            kind = rel.split("/")[0]
            app = os.path.join(a.fixtures, *rel.split("/"))
            command = "vbp" if app.endswith(".vbp") else "static"
            before = missing(os.path.join(os.path.dirname(app), files[0]))
            wxs, again, msi = (os.path.join(tmp, n) for n in ("a.wxs", "b.wxs", "a.msi"))
            for out in (wxs, again):
                r = run(a, [command, app, "--wxs", out, "--linux-sources", "--no-merge-modules"])
                expect(r.returncode == 0, f"{rel} --wxs: {r.stderr!r}")
            source = open(wxs, encoding="utf-8").read()
            expect(source == open(again, encoding="utf-8").read(), f"{rel}: two runs give two sources")
            with open(wxs, "w", encoding="utf-8") as f:  # wixl takes a Source relative to where it runs
                f.write(source.replace('Source="/', 'Source="'))
            built = subprocess.run(["wixl", "-a", "x64" if 'Platform="x64"' in source else "x86", "-o", msi, wxs],
                                   cwd="/", capture_output=True, text=True)
            expect(built.returncode == 0, f"{rel}: wixl: {built.stderr[-400:]!r}")
            program_files = os.path.join(fresh, "drive_c", "Program Files" if 'Platform="x64"' in source
                                         else "Program Files (x86)", folder)
            installed = subprocess.run(["wine", "msiexec", "/i", win(msi), "/qn"], env=env, capture_output=True)
            there = sorted(os.listdir(program_files)) if os.path.isdir(program_files) else []
            expect(installed.returncode == 0 and set(files) <= set(there), f"{rel}: installed {there}")
            after = missing(win(os.path.join(program_files, files[0])), env)
            expect(after <= before, f"{rel}: missing after install {after - before}")
            subprocess.run(["wine", "msiexec", "/x", win(msi), "/qn"], env=env, capture_output=True)
            expect(not os.path.exists(program_files), f"{rel}: left after uninstall: {program_files}")
            # The bundle: the program and its closure beside it, scanned where nothing else is.
            bundle = os.path.join(tmp, "bundle-" + kind)
            r = run(a, ["bundle", app, bundle])
            got = sorted(os.listdir(bundle)) if os.path.isdir(bundle) else []
            expect(r.returncode == 0 and set(files) <= set(got), f"{rel} bundle: {r.returncode} {got} {r.stderr!r}")
            expect(missing(win(os.path.join(bundle, files[0])), env) <= before, f"{rel}: bundle misses more")
            if command == "static":
                r = run(a, ["bundle", app, os.path.join(os.path.dirname(app), "out")])
                expect(r.returncode == 2 and "inside the scanned folder" in r.stderr, f"{rel}: bundle into itself")
        # A file of the bundle with other bytes stays unless --force.
        bundle = os.path.join(tmp, "bundle-walk")
        with open(os.path.join(bundle, "alpha.dll"), "wb") as f:
            f.write(b"other")
        app = os.path.join(a.fixtures, "walk", "app", "app.exe")
        r = run(a, ["bundle", app, bundle])
        expect(r.returncode == 1 and "alpha.dll is there with other bytes" in r.stderr, f"bundle over: {r.stderr!r}")
        r = run(a, ["bundle", app, bundle, "--force"])
        expect(r.returncode == 0 and open(os.path.join(bundle, "alpha.dll"), "rb").read() != b"other", "--force")
    finally:
        subprocess.run(["wineserver", "-k"], env=env, capture_output=True)
        shutil.rmtree(tmp, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser()
    for option in ["--emulator", "--tool", "--dump", "--prefix", "--fixtures", "--script-host"]:
        ap.add_argument(option, required=True)
    ap.add_argument("case", choices=["json", "table", "exits", "script", "hostile", "trace", "assembly", "vbp", "msm",
                                        "target", "graph", "installer"])
    a = ap.parse_args()
    globals()["case_" + a.case](a)
    print(f"{0 if failures else 1} passed, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
