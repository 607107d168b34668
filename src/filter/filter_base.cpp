#include "filter/filter_base.h"

#include "toolkit/path_helpers.h"

bool AskFilter(CFilterBase* filter, const std::wstring& path, bool& bInFilterList, bool& bFilter) {
    bFilter = filter->Filter(qv::FileNamePart(path), bInFilterList);
    return bFilter;
}
