// The reader of a file's version resource. It loads the block of GetFileVersionInfoW once and
// answers from it; copies share the block through an atomic count, so a copy may travel to
// another thread. A file without a version resource gives an empty reader that finds no string.
//
// String lookup: the name as given first (so "\StringFileInfo\040904B0\X" works as a full path),
// then "\StringFileInfo\LLLLCCCC\name" for each translation in order, where LLLL is the language of
// that translation and CCCC the code page of the FIRST one. Pairing every language with the first
// code page is deliberate and kept: callers rely on which sub-blocks are (and are not) searched.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>
#include <vector>

namespace qv {

// The reader of a file's version resource.
class version_info : public VS_FIXEDFILEINFO {
public:
    version_info() noexcept;
    // Loads the file's resource at once; see Load.
    explicit version_info(const std::wstring& file);
    version_info(const version_info& other);
    version_info& operator=(const version_info& other);
    virtual ~version_info();

    // True when the file has a version resource with a fixed record. Loading again replaces what
    // the object held (copies keep the old block); a failed load leaves it empty.
    bool Load(const std::wstring& file);
    // The same from a version resource's bytes as the file holds them, which GetFileVersionInfoW would hand out
    // of the file: for a reader that has found the resource itself.
    bool LoadResource(const void* resource, size_t length);

    // The text of a value as a pointer into the shared block, or nullptr. The pointer lives as
    // long as this object or a copy of it. `name` is narrow text, widened with the ANSI code page.
    const wchar_t* GetString(const char* name) const;

    // Each entry: language in the low 16 bits, code page in the high 16 bits, in resource order.
    std::vector<DWORD> m_translations;

    struct loaded_version;

private:
    void Release() noexcept;
    bool Take(bool read, loaded_version& loaded);

    BYTE* m_pBlock = nullptr;
    std::atomic<LONG>* m_pRefCount = nullptr;
};

// The fixed file version as "a<sep>b<sep>c<sep>d" (high and low words of dwFileVersionMS, then of
// dwFileVersionLS); empty when the file has no version resource.
std::wstring GetFileVersionText(const std::wstring& file, const std::wstring& separator);

// The "QVInternalVersion" value of the file's version resource; empty when there is none.
std::wstring GetInternalVersion(const std::wstring& file);

// Whether the file announces self-registration: its version resource has an "OLESelfRegister"
// value, whatever the value's text (usually empty).
bool IsOleSelfRegister(const std::wstring& file);

} // namespace qv
