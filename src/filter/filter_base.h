// The filter contract every scanner asks: is a file on a do-not-redistribute list (bInFilterList),
// and is it to be dropped now (the result)? With filtering off the first may be true while the
// second never is.
#pragma once

#include <string>

class CFilterBase {
public:
    virtual ~CFilterBase() = default;

    // Returns whether the file is to be dropped; bInFilterList tells whether it is on a list at all.
    virtual bool Filter(const std::wstring& name, bool& bInFilterList) = 0;
    // (Re)loads the lists.
    virtual void Initialize() = 0;

    // Sets the flag, then reloads the lists, whatever the flag's value.
    void SetFiltering(bool bOn) {
        m_bFiltering = bOn;
        Initialize();
    }
    bool Filtering() const { return m_bFiltering; }

protected:
    bool m_bFiltering = false;
};

// Cuts a path to its file-name part and asks the filter.
bool AskFilter(CFilterBase* filter, const std::wstring& path, bool& bInFilterList, bool& bFilter);
