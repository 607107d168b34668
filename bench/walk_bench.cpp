// walk_bench [FOLDER] [ROUNDS]: walks the import closure of every PE file in FOLDER (default: the
// system folder) as one top-level scan each, and prints files per second.
//
// Each top-level file is a whole scan: a fresh walker, its own current-directory switch, every
// dependency searched along the current folder and Path and mapped twice (the machine test, then the
// walk). Files that are no usable image are counted as they come, since a scan of them is cheap but real.
#include "QVWIScanners.h"
#include "bench_support.h"
#include "image/pe_images.h"
#include "static/dep_walker.h"
#include "toolkit/path_helpers.h"
#include "toolkit/probes.h"

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

using qv::bench::now;

int wmain(int argc, wchar_t** argv) {
    std::wstring folder = argc > 1 ? argv[1] : qv::SystemFolder();
    int rounds = argc > 2 ? _wtoi(argv[2]) : 1;
    if (rounds < 1)
        rounds = 1;

    std::vector<std::wstring> files;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(qv::JoinPath(folder, L"*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) {
        fwprintf(stderr, L"walk_bench: cannot list %ls\n", folder.c_str());
        return 1;
    }
    do {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            files.push_back(qv::JoinPath(folder, data.cFileName));
    } while (FindNextFileW(find, &data));
    FindClose(find);

    qv::GetSearchFolders(); // read Path before the clock starts, as a host would at load
    qv::bench::counting_sink sink;
    size_t images = 0, found = 0, missing = 0;
    double start = now();
    for (int round = 0; round < rounds; ++round) {
        for (const auto& file : files) {
            CDepWalker walker;
            walker.Scan(file, &sink, nullptr, L"", 0);
            found += walker.FoundFiles.size();
            missing += walker.MissingFiles.size();
        }
    }
    double seconds = now() - start;
    for (const auto& file : files)
        images += CPEImage(file).Usable() ? 1 : 0;

    size_t scans = files.size() * static_cast<size_t>(rounds);
    wprintf(L"folder        %ls\n", folder.c_str());
    wprintf(L"files         %zu (%zu usable images), %d round(s)\n", files.size(), images, rounds);
    wprintf(L"results       %zu found entries, %zu missing entries, %ld events\n", found, missing, sink.events);
    wprintf(L"time          %.3f s\n", seconds);
    wprintf(L"throughput    %.1f files/s (%.2f ms per top-level file)\n", scans / seconds, 1000.0 * seconds / scans);
    return 0;
}
