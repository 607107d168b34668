// scan_bench [FOLDER] [ROUNDS] [TYPE]: the whole static scan as a client runs it — StaticScan from
// QVWIScanners.dll through DllGetClassObject, ScanFile with the shipped lists on, the records read
// back — over every file of FOLDER (default: the system folder), and prints files per second. TYPE is the
// scan type (default 0; 196608 asks for the extensions: delay loads and details).
#include "QVWIScanners.h"
#include "bench_support.h"
#include "inc/com_ptr.h"
#include "test_support.h"

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

using qv::bench::now;

int wmain(int argc, wchar_t** argv) {
    wchar_t system[MAX_PATH];
    GetSystemDirectoryW(system, MAX_PATH);
    std::wstring folder = argc > 1 ? argv[1] : system;
    int rounds = argc > 2 ? _wtoi(argv[2]) : 1;
    const long type = argc > 3 ? _wtol(argv[3]) : 0;
    if (rounds < 1)
        rounds = 1;

    std::vector<std::wstring> files;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) {
        fwprintf(stderr, L"scan_bench: cannot list %ls\n", folder.c_str());
        return 1;
    }
    do {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            files.push_back(folder + L"\\" + data.cFileName);
    } while (FindNextFileW(find, &data));
    FindClose(find);

    qv::test::com_apartment apartment(COINIT_MULTITHREADED); // as qvscan scans: no window, no desktop process
    qv::com_ptr<IStaticScan> scan;
    if (FAILED(qv::test::server().Create(CLSID_StaticScan, nullptr, IID_IStaticScan, scan.put_void()))) {
        fwprintf(stderr, L"scan_bench: cannot create StaticScan\n");
        return 1;
    }
    qv::bench::counting_sink sink;
    long records = 0, failed = 0;
    qv::bstr lang(L"");
    double start = now();
    for (int round = 0; round < rounds; ++round) {
        for (const auto& file : files) {
            qv::bstr path(file);
            VARIANT_BOOL completed = 0;
            HRESULT hr = E_FAIL;
            try {
                hr = scan->ScanFile(path.get(), &sink, VARIANT_TRUE, lang.get(), static_cast<EScanType>(type), &completed);
            } catch (...) {
            }
            if (FAILED(hr)) {
                ++failed;
                continue;
            }
            qv::com_ptr<IDepFiles> deps;
            scan->get_Dependencies(deps.put());
            long count = 0;
            if (deps)
                deps->get_Count(&count);
            records += count;
        }
    }
    double seconds = now() - start;
    size_t scans = files.size() * static_cast<size_t>(rounds);
    wprintf(L"folder        %ls\n", folder.c_str());
    wprintf(L"files         %zu, %d round(s), %ld failed scans\n", files.size(), rounds, failed);
    wprintf(L"results       %ld records, %ld events\n", records, sink.events);
    wprintf(L"time          %.3f s\n", seconds);
    wprintf(L"throughput    %.1f files/s (%.2f ms per top-level file)\n", scans / seconds, 1000.0 * seconds / scans);
    return 0;
}
