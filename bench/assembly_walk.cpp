// assembly_walk FOLDER [ROUNDS]: the reference walk of every assembly below FOLDER (each *.dll of its tree)
// as a client runs it: DotNetAssembly from QVWIScanners.dll through DllGetClassObject, Load, Dependencies,
// and every reference read back (FileName, Found, and the child assembly of each one found, which the walk
// has loaded). Prints how many assemblies and references there were, how many were found, and the time of
// the walks alone, best of ROUNDS (default 1), split into the Load of each assembly and its Dependencies;
// listing the folder is not timed. The whole process, Wine's start included, is timed by
// bench/assembly-walk-vs-monodis.
//
// The walks run with FOLDER as the current folder, as a scan runs in the folder it scans: the location
// ladder looks for a <Name> folder below the current folder, and in the layout of Mono's cache
// (<Name>/<version>__<token>/<Name>.dll) that is where a referenced assembly lies.
#include "QVWIScanners.h"
#include "bench_support.h"
#include "inc/com_ptr.h"
#include "test_support.h"
#include "toolkit/path_helpers.h"

#include <windows.h>

#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

using qv::bench::now;

namespace {

void list_assemblies(const std::wstring& folder, std::vector<std::wstring>& files) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(qv::JoinPath(folder, L"*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::wstring name = data.cFileName;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            if (name != L"." && name != L"..")
                list_assemblies(qv::JoinPath(folder, name), files);
        } else if (name.size() > 4 && _wcsicmp(name.c_str() + name.size() - 4, L".dll") == 0) {
            files.push_back(qv::JoinPath(folder, name));
        }
    } while (FindNextFileW(find, &data));
    FindClose(find);
}

struct tally {
    long loaded = 0, failed = 0, references = 0, found = 0, children = 0;
    double load = 0; // seconds in Load
};

// One assembly's walk, every reference read back.
void walk(const std::wstring& file, qv::bench::counting_sink& sink, tally& t) {
    const double start = now();
    qv::com_ptr<IDotNetAssembly> assembly;
    const bool loaded =
        SUCCEEDED(qv::test::server().Create(CLSID_DotNetAssembly, nullptr, IID_IDotNetAssembly, assembly.put_void())) &&
        SUCCEEDED(assembly->Load(qv::bstr(file).get()));
    t.load += now() - start;
    if (!loaded) {
        ++t.failed;
        return;
    }
    ++t.loaded;
    qv::com_ptr<IDotNetAssemblyRefs> refs;
    long count = 0;
    if (FAILED(assembly->get_Dependencies(&sink, refs.put())) || !refs || FAILED(refs->get_Count(&count)))
        return;
    for (long i = 1; i <= count; ++i) {
        VARIANT index;
        VariantInit(&index);
        index.vt = VT_I4;
        index.lVal = i;
        qv::com_ptr<IDotNetAssemblyRef> ref;
        if (FAILED(refs->get_Item(index, ref.put())) || !ref)
            continue;
        ++t.references;
        qv::bstr name;
        VARIANT_BOOL found = VARIANT_FALSE;
        ref->get_FileName(name.put());
        ref->get_Found(&found);
        t.found += found != VARIANT_FALSE;
        qv::com_ptr<IDotNetAssembly> child;
        if (SUCCEEDED(ref->get_DotNetAssembly(child.put())) && child && SUCCEEDED(child->get_Name(name.put())))
            ++t.children;
    }
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        fwprintf(stderr, L"usage: assembly_walk FOLDER [ROUNDS]\n");
        return 2;
    }
    const std::wstring folder = argv[1];
    const int rounds = std::max(argc > 2 ? _wtoi(argv[2]) : 1, 1);
    std::vector<std::wstring> files;
    list_assemblies(folder, files);
    if (files.empty()) {
        fwprintf(stderr, L"assembly_walk: no assemblies below %ls\n", folder.c_str());
        return 1;
    }

    if (!SetCurrentDirectoryW(folder.c_str())) {
        fwprintf(stderr, L"assembly_walk: cannot enter %ls\n", folder.c_str());
        return 1;
    }
    qv::test::com_apartment apartment(COINIT_MULTITHREADED); // as qvscan scans: no window, no desktop process
    qv::bench::counting_sink sink;
    tally t, best;
    double bestSeconds = 0;
    for (int round = 0; round < rounds; ++round) {
        t = tally{};
        const double start = now();
        for (const auto& file : files)
            walk(file, sink, t);
        const double seconds = now() - start;
        if (round == 0 || seconds < bestSeconds)
            bestSeconds = seconds, best = t;
    }
    wprintf(L"assemblies  %zu (%ld loaded, %ld not)\n", files.size(), best.loaded, best.failed);
    wprintf(L"references  %ld (%ld found, %ld of them assemblies loaded; %ld missing)\n", best.references, best.found,
            best.children, best.references - best.found);
    wprintf(L"walk        %.3f s (best of %d): Load %.3f s, Dependencies %.3f s\n", bestSeconds, rounds, best.load,
            bestSeconds - best.load);
    return 0;
}
