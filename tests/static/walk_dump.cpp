// walk_dump FILE: walks FILE as a static scan does and prints, one per line and tab-separated,
//   folder <search folder>            the folders of Path, in order
//   event <path>                      each FoundDepFile, in order
//   found <key> <full path> <0|1>     the found map (last field: self-registering)
//   missing <key>                     the missing map
// for the cross-check against an independent reading of the import tables.
#include "recording_sink.h"
#include "static/dep_walker.h"
#include "test_support.h"
#include "toolkit/probes.h"

#include <cstdio>

int wmain(int argc, wchar_t** argv) {
    using qv::test::narrow;
    if (argc != 2)
        return fprintf(stderr, "usage: walk_dump FILE\n"), 2;
    for (const auto& folder : qv::GetSearchFolders())
        printf("folder\t%s\n", narrow(folder).c_str());
    qv::test::recording_sink sink;
    CDepWalker walker;
    try {
        walker.Scan(argv[1], &sink, nullptr, L"", 0);
    } catch (const com_exception& e) {
        return fprintf(stderr, "walk_dump: scan failed: 0x%08lx\n", static_cast<unsigned long>(e.Error())), 1;
    }
    for (const auto& path : sink.found)
        printf("event\t%s\n", narrow(path).c_str());
    for (const auto& [key, record] : walker.FoundFiles)
        printf("found\t%s\t%s\t%d\n", narrow(key.str()).c_str(), narrow(record.FullPath).c_str(),
               record.SelfRegistering ? 1 : 0);
    for (const auto& [key, record] : walker.MissingFiles)
        printf("missing\t%s\n", narrow(key.str()).c_str());
    return 0;
}
