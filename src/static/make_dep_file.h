// The bridge from the static scanner's record (ScannedFile) to the record every scanner hands out (CDepFile).
#pragma once

#include "QVWIScanners.h"

class CDepFiles;
class CFilterBase;
struct ScannedFile;

// The bridge from the static scanner's record to a CDepFile, with self-registration taken from the
// record (the file is never loaded). A plain file is asked of the filter for IsFilterable. A merge-module
// entry (subject and key both set) is made once per key: when files already holds the key and the module
// is not missing, nothing is made, *depFile is null and *name untouched; otherwise the entry's name is the
// key. *name receives its own copy (a null name pointer throws E_POINTER), *depFile one reference.
// Failures are thrown as com_exception.
void MakeDepFile(CDepFiles* files, const ScannedFile& record, CFilterBase* filter, bool& bIsMergeModule, BSTR* name,
                 IDepFile** depFile);
