// inifilex: a profile ("ini") text file held wholly in memory, sections in file order and keys in section
// order, loaded and saved in one pass each. The line rules and the byte-order marks are those of
// format/ini/ini_text.h. A file without a mark is read and written in the system's ANSI code page, unless a
// code page was set before the load. Names are matched without regard to ASCII case and keep the spelling
// they were first given; sorting (SortSections, SortKeys) orders names the same way and keeps the order of
// names that compare equal.
//
// Formats are never handed to printf: in CopySectionsFormatted each "%s" (or "%ls") takes the next of the
// two texts, in GetNumberedValues each "%d" (or "%i", "%u") takes the number, "%%" is one "%", and any
// other "%" stays as it is.
//
// SaveAs flags: 1 sorts the sections first, 2 writes nothing (and succeeds) when there are no sections,
// 4 takes the code page and the mark flag given with the call.
//
// Errors are results: Load and SaveAs return false and keep the Win32 error in GetLastError (and the file
// of a failed save in GetLastErrorFile); what a failed load read before its bad line stays until the next
// Load.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace qv {

struct name_less {
    bool operator()(const std::wstring& a, const std::wstring& b) const;
};

struct inifileentryx {
    std::wstring m_sKey;
    std::wstring m_sValue;
};

struct inifilesectionx {
    std::wstring m_sName;
    std::vector<inifileentryx> m_entries;
    std::map<std::wstring, size_t, name_less> m_index; // key -> place in m_entries

    inifileentryx* Find(const std::wstring& key);
    void Reindex();
};

class inifilex {
public:
    static constexpr DWORD SaveSorted = 1;
    static constexpr DWORD SaveNothingWhenEmpty = 2;
    static constexpr DWORD SaveWithEncoding = 4;

    inifilex() = default;

    // The 42 operations, in the order of their slots.
    virtual void SetFile(std::wstring file, std::wstring separator);
    virtual bool Load(std::wstring file, std::wstring separator, bool bareKeys);
    virtual bool Save(DWORD flags, int encoding, bool bom);
    virtual bool SaveAs(std::wstring file, DWORD flags, int encoding, bool bom);
    virtual void SetSeparator(std::wstring separator);
    virtual std::wstring GetSeparator();
    virtual std::wstring GetFile();
    virtual void CopySectionInto(std::wstring section, const inifilesectionx& other);
    virtual void CopySectionsFormatted(const inifilex& other, std::wstring text, std::wstring format);
    virtual inifilesectionx& CreateSection(std::wstring name);
    virtual bool MoveKey(std::wstring section, std::wstring key, std::wstring afterKey);
    virtual std::wstring GetString(std::wstring section, std::wstring key, std::wstring defaultValue);
    virtual void SetString(std::wstring section, std::wstring key, std::wstring value);
    virtual long GetInt(std::wstring section, std::wstring key, long defaultValue);
    virtual void SetInt(std::wstring section, std::wstring key, long value);
    virtual bool GetBool(std::wstring section, std::wstring key, bool defaultValue);
    virtual void SetBool(std::wstring section, std::wstring key, bool value);
    virtual bool IsModified();
    virtual void SetModified(bool flag);
    virtual bool HasSection(std::wstring name);
    virtual bool HasKey(std::wstring section, std::wstring key);
    virtual void GetKeyNames(std::wstring section, std::vector<std::wstring>& names);
    virtual void GetSectionNames(std::vector<std::wstring>& names);
    virtual size_t FindSectionNames(std::vector<std::wstring>& names, std::wstring pattern);
    virtual void GetNumberedValues(std::wstring section, std::vector<std::wstring>& values, std::wstring format);
    virtual bool RenameSection(std::wstring name, std::wstring newName);
    virtual bool RenameKey(std::wstring section, std::wstring key, std::wstring newKey);
    virtual void ReplaceInSectionNames(std::wstring oldText, std::wstring newText);
    virtual bool RemoveSection(std::wstring name);
    virtual bool RemoveKey(std::wstring section, std::wstring key);
    virtual bool ClearSection(std::wstring name);
    virtual void Clear();
    virtual void RemoveSectionsByPrefix(std::wstring prefix);
    virtual void SortAll(bool a, bool b, bool c);
    virtual void SortSections();
    virtual void SortAllKeys();
    virtual void SortKeys(inifilesectionx& section);
    virtual void SortSectionKeys(std::wstring name);
    virtual void SetCodePage(int code);
    virtual bool SetWriteBom(bool flag);
    virtual DWORD GetLastError();
    virtual std::wstring GetLastErrorFile();
    virtual ~inifilex() = default; // after the operations, so that they keep the first slots

    // The sections in file order, for readers that walk them.
    const std::vector<inifilesectionx>& Sections() const { return m_sections; }
    const inifilesectionx* FindSection(const std::wstring& name) const;
    int CodePage() const { return m_nCodePage; }
    // The line that ended the last Load early (from 1), and what was wrong with it; 0 and empty otherwise.
    size_t BadLine() const { return m_nBadLine; }
    std::wstring BadLineText() const { return m_sBadLine; }
    bool WritesBom() const { return m_bWriteBom; }

private:
    inifilesectionx* Find(const std::wstring& name);
    void Reindex();

    std::vector<inifilesectionx> m_sections;
    std::map<std::wstring, size_t, name_less> m_index; // name -> place in m_sections
    std::wstring m_sFile;
    bool m_bBareKeys = false;
    bool m_bModified = false;
    std::wstring m_sSeparator = L"=";
    bool m_bSaving = false;
    int m_nCodePage = -1;
    bool m_bWriteBom = false;
    DWORD m_nLastError = 0;
    std::wstring m_sLastErrorFile;
    size_t m_nBadLine = 0;
    std::wstring m_sBadLine;
};

// One-shot reads of a single key (the default when the file cannot be loaded) and writes of one key.
std::wstring GetIniString(const std::wstring& file, const std::wstring& section, const std::wstring& key,
                          const std::wstring& defaultValue);
long GetIniInt(const std::wstring& file, const std::wstring& section, const std::wstring& key, long defaultValue);
bool GetIniBool(const std::wstring& file, const std::wstring& section, const std::wstring& key, bool defaultValue);
bool SetIniString(const std::wstring& file, const std::wstring& section, const std::wstring& key,
                  const std::wstring& value);
bool SetIniInt(const std::wstring& file, const std::wstring& section, const std::wstring& key, long value);
bool SetIniBool(const std::wstring& file, const std::wstring& section, const std::wstring& key, bool value);

} // namespace qv
