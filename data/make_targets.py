#!/usr/bin/python3
"""Writes the target profiles: what a machine an installer targets provides without the installer.

    data/make_targets.py <system folder of a Wine prefix> <Mono's reference assemblies folder> <out folder>
    data/make_targets.py build/wineprefix/drive_c/windows/system32 /usr/lib/mono/4.8-api data/targets

A profile names the system files of the target (the library-like files of the prefix's system folder, the
Windows KnownDLLs, and system DLLs that Windows has and the prefix lacks), the API-set contract families its
loader resolves (the schema's names up to their last hyphen), and the .NET Framework assemblies it holds, with
their versions and public-key tokens (read from the reference assemblies by monodis). Each profile is one JSON
document; the scanner reads the one --target names. Two are written: the newest Windows x64 with the .NET
Framework 4.8 (the default) and the same Windows without any .NET Framework.
"""
import hashlib
import json
import os
import re
import struct
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from make_filters import EXTENSIONS, INCLUDE, section  # noqa: E402

# Loaded from the system folder by every process of Windows 10 and later (the KnownDLLs key).
KNOWN_DLLS = ["advapi32.dll", "clbcatq.dll", "combase.dll", "comdlg32.dll", "coml2.dll", "difxapi.dll", "gdi32.dll",
              "gdiplus.dll", "imagehlp.dll", "imm32.dll", "kernel32.dll", "msctf.dll", "msvcrt.dll", "normaliz.dll",
              "nsi.dll", "ole32.dll", "oleaut32.dll", "psapi.dll", "rpcrt4.dll", "sechost.dll", "setupapi.dll",
              "shcore.dll", "shell32.dll", "shlwapi.dll", "user32.dll", "wldap32.dll", "wow64.dll", "wow64win.dll",
              "ws2_32.dll"]
# System DLLs of Windows 10 and later that real programs import and a Wine prefix does not carry.
WINDOWS_ONLY = ["bcryptprimitives.dll", "cryptbase.dll", "gdi32full.dll", "msvcp_win.dll", "win32u.dll",
                "windows.storage.dll", "profapi.dll", "umpdc.dll", "powrprof.dll", "kernel.appcore.dll",
                "d3d12.dll", "dcomp.dll", "coremessaging.dll", "wintypes.dll", "twinapi.appcore.dll",
                "textinputframework.dll", "coreuicomponents.dll", "dbgcore.dll", "dxcore.dll", "ntasn1.dll",
                "ncryptsslp.dll", "rmclient.dll", "srvcli.dll", "netutils.dll", "wkscli.dll"]

# Assemblies of Mono's reference set that the .NET Framework does not hold: Mono's own, and libraries that
# applications ship from package feeds.
NOT_FRAMEWORK = re.compile(r"^(Mono\.|I18N|Novell\.|Commons\.|RabbitMQ\.|System\.Reactive\.|System\.Web\.Http|"
                           r"System\.Web\.WebPages|System\.Json|PEAPI$|IBM\.Data\.DB2$|System\.Net\.Http\.Formatting$|"
                           r"System\.Web\.Mvc$|System\.Web\.Razor$|WebMatrix\.Data$|Microsoft\.Web\.Infrastructure$|"
                           r"System\.Numerics\.Vectors$|System\.Threading\.Tasks\.Dataflow$)")


def assembly_identity(path):
    """(name, version, public-key token) of an assembly, from monodis --assembly."""
    text = subprocess.run(["monodis", "--assembly", path], capture_output=True, text=True, check=True).stdout
    name = re.search(r"^Name:\s+(\S+)", text, re.M).group(1)
    version = re.search(r"^Version:\s+(\S+)", text, re.M).group(1)
    key = bytes.fromhex("".join(re.findall(r"^0x[0-9a-f]+: ((?:[0-9A-F]{2} )+)", text, re.M | re.I)).replace(" ", ""))
    # The token: the last 8 bytes of the key's SHA-1, in reverse order.
    token = hashlib.sha1(key).digest()[-8:][::-1].hex() if key else ""
    return name, version, token


def framework(reference_folder):
    found = {}
    for folder in (reference_folder, os.path.join(reference_folder, "Facades")):
        for entry in sorted(os.listdir(folder)):
            if entry.lower().endswith((".dll", ".exe")) and not NOT_FRAMEWORK.match(entry[:-4]):
                name, version, token = assembly_identity(os.path.join(folder, entry))
                found[name.lower()] = {"name": name, "version": version, "publicKeyToken": token}
    return [found[k] for k in sorted(found)]


def api_set_hosts(system):
    """Each contract family of the schema (the name up to its last hyphen, as the loader matches it) with the DLL
    that hosts it by default, or "" when the schema names none."""
    with open(os.path.join(system, "apisetschema.dll"), "rb") as f:
        data = section(f.read(), b".apiset")
    version, _size, _flags, count, entries = struct.unpack_from("<IIIII", data, 0)
    if version != 6:
        raise ValueError(f"API-set schema version {version}")
    text = lambda offset, length: data[offset:offset + length].decode("utf-16-le").lower()
    hosts = {}
    for i in range(count):
        _flags, name_offset, name_length, hashed_length, values, value_count = struct.unpack_from(
            "<IIIIII", data, entries + 24 * i)
        family = text(name_offset, hashed_length)
        host = ""
        for v in range(value_count): # the default host is the value with no importing-module name
            _vflags, importer_offset, importer_length, value_offset, value_length = struct.unpack_from(
                "<IIIII", data, values + 20 * v)
            if importer_length == 0:
                host = text(value_offset, value_length)
        hosts[family] = host
    return dict(sorted(hosts.items()))


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    system, references, out = sys.argv[1:]
    files = {n.lower() for n in os.listdir(system)
             if n.lower().endswith(EXTENSIONS) and os.path.isfile(os.path.join(system, n))}
    files = sorted((files | set(KNOWN_DLLS) | set(WINDOWS_ONLY)) - set(INCLUDE))
    families = api_set_hosts(system)
    assemblies = framework(references)
    os.makedirs(out, exist_ok=True)
    profiles = {
        "windows-x64-net48": ("The newest Windows on x64 with the .NET Framework 4.8", assemblies, "4.8"),
        "windows-x64": ("The newest Windows on x64 without any .NET Framework", [], ""),
    }
    for name, (description, held, version) in profiles.items():
        doc = {"name": name, "description": description, "machine": "x64", "dotnetFramework": version,
               "systemFiles": files, "apiSets": families, "frameworkAssemblies": held}
        with open(os.path.join(out, name + ".json"), "w", encoding="utf-8") as f:
            json.dump(doc, f, indent=1)
            f.write("\n")
        print(f"{name}: {len(files)} system files, {len(families)} API-set families, {len(held)} assemblies",
              file=sys.stderr)


if __name__ == "__main__":
    main()
