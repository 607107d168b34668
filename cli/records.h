// The records as the tool shows them: read once from the server's collections, written as a table by one
// writer and as JSON by one writer, with one legend of the marks.
#pragma once

#include "QVWIScanners.h"
#include "json_writer.h"

#include <string>
#include <vector>

namespace qvscan {

struct record {
    std::wstring name, path, destPath;
    long major = 0, minor = 0, size = 0;
    double modified = 0;
    bool missing = false, filterable = false, mergeModule = false, shared = false, selfRegistering = false;
    // What named it: "imports", "dep" (a .dep file), "delay" (only delay-loaded imports), "run" (the target
    // loaded it) or "project".
    const char* via = "imports";
    std::vector<long> languages;
    // "os" (an API-set contract) or "target" (the target profile holds it); null when neither.
    const char* providedBy = nullptr;
    std::wstring host; // an API-set contract's host DLL, where the profile names one
    struct entry_gap {
        std::wstring importer;
        std::vector<std::wstring> names;
        long more = 0; // names left out
    };
    std::vector<entry_gap> missingEntries;
    struct passed_copy {
        std::wstring path;
        std::wstring machine;
    };
    std::vector<passed_copy> passedOver;
    // A missing file's chains: each from the file that needs it back to the scanned file, shortest first; and
    // how many more there are (at least that many when neededByAtLeast).
    std::vector<std::vector<std::wstring>> neededBy;
    size_t neededByMore = 0;
    bool neededByAtLeast = false;
};

// The index of item i (counted from 1) of a server collection.
VARIANT item_index(long i);

record read_record(IDepFile* file);
// Every file of the collection, in its order; none for a null collection.
std::vector<record> read_all(IDepFiles* files);

// "1.2.3.4" from the two version words; empty for 0.0.0.0.
std::wstring version_text(long major, long minor);
// "2024-01-31T12:00:00" from an automation date; empty for none.
std::wstring time_text(double date);

// The marks column: M missing, F filterable or provided, G merge module, S shared, R self-registering, D from a
// .dep file, L only delay-loaded, E lacks entry points its importers call.
std::string marks(const record& r);
extern const char* const marks_legend;
// NAME, FOLDER, VERSION, SIZE and MARKS, a row per record, aligned; then a note line for each thing the
// details tell (an entry point lacking, a copy of another machine passed over, a contract's host).
std::string records_table(const std::vector<record>& records);
// The note lines alone.
std::string records_notes(const std::vector<record>& records);

// The verdict of --fail-on-missing (level 1: files needed at load time; 2: delay-loaded ones too; 0: none
// asked): ExitMissing when such a file is missing, else ExitOk. Given a level, it writes one line on standard
// error that a build log shows at a glance, naming what is missing.
int missing_verdict(int level, const std::string& subject, const std::vector<record>& records);

json record_json(const record& r);
json records_json(const std::vector<record>& records);

} // namespace qvscan
