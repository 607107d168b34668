// Version resources through GetFileVersionInfoW and VerQueryValueW. The block comes from the file,
// so every value pointer and length VerQueryValueW derives from it is checked against the block
// before it is read.
#include "toolkit/version_info.h"

#include <cstdint>
#include <cstring>
#include <memory>

// A freshly loaded block and what was read from it.
struct qv::version_info::loaded_version {
    std::unique_ptr<BYTE[]> block;
    VS_FIXEDFILEINFO fixed{};
    const BYTE* translations = nullptr; // raw 4-byte entries inside the block
    UINT translationCount = 0;
};

namespace {

using loaded_version = qv::version_info::loaded_version;

// Whether [value, value + length) lies inside the block, in subtraction form.
bool InBlock(const BYTE* block, DWORD size, const void* value, UINT length) {
    auto p = static_cast<const BYTE*>(value);
    if (p < block || p > block + size)
        return false;
    return length <= static_cast<size_t>(block + size - p);
}

bool ParseVersion(std::unique_ptr<BYTE[]> block, DWORD size, loaded_version& out) {
    void* value = nullptr;
    UINT length = 0;
    if (!VerQueryValueW(block.get(), L"\\", &value, &length) || !value || length < sizeof(VS_FIXEDFILEINFO) ||
        !InBlock(block.get(), size, value, sizeof(VS_FIXEDFILEINFO)))
        return false;
    std::memcpy(&out.fixed, value, sizeof out.fixed);

    // No translation list is still a loaded resource, one without translations.
    out.translations = nullptr;
    out.translationCount = 0;
    if (VerQueryValueW(block.get(), L"\\VarFileInfo\\Translation", &value, &length) && value && length >= 4 &&
        InBlock(block.get(), size, value, length)) {
        out.translations = static_cast<const BYTE*>(value);
        out.translationCount = length >> 2;
    }
    out.block = std::move(block);
    return true;
}

bool LoadVersion(const std::wstring& file, loaded_version& out) {
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(file.c_str(), &ignored);
    if (size == 0)
        return false;
    // Zero-filled: the size asked for exceeds the resource, so a string value that lacks its
    // terminator still ends inside the block.
    auto block = std::make_unique<BYTE[]>(size);
    if (!GetFileVersionInfoW(file.c_str(), 0, size, block.get()))
        return false;
    return ParseVersion(std::move(block), size, out);
}

// The block as GetFileVersionInfoW lays out a resource of that size: the resource's bytes at its start, in a
// zero-filled block of the size GetFileVersionInfoSizeW asks for (twice the resource and four bytes more).
bool LoadVersionResource(const void* resource, size_t length, loaded_version& out) {
    if (length == 0 || length > 0x7FFFFFF0 / 2)
        return false;
    const DWORD size = static_cast<DWORD>(length * 2 + 4);
    auto block = std::make_unique<BYTE[]>(size);
    std::memcpy(block.get(), resource, length);
    return ParseVersion(std::move(block), size, out);
}

DWORD TranslationAt(const BYTE* translations, UINT index) {
    DWORD entry;
    std::memcpy(&entry, translations + 4 * static_cast<size_t>(index), sizeof entry);
    return entry;
}

std::wstring WidenName(const char* name) {
    int n = MultiByteToWideChar(CP_ACP, 0, name, -1, nullptr, 0);
    if (n <= 1)
        return {};
    std::wstring wide(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_ACP, 0, name, -1, wide.data(), n);
    wide.resize(static_cast<size_t>(n - 1));
    return wide;
}

void AppendHex4(std::wstring& text, WORD value) {
    static constexpr wchar_t digits[] = L"0123456789ABCDEF";
    for (int shift = 12; shift >= 0; shift -= 4)
        text += digits[(value >> shift) & 0xF];
}

const wchar_t* QueryString(const BYTE* block, const BYTE* translations, UINT count, const char* name) {
    if (!block || !name)
        return nullptr;
    const std::wstring wide = WidenName(name);
    void* value = nullptr;
    UINT length = 0;
    if (VerQueryValueW(block, wide.c_str(), &value, &length) && value)
        return static_cast<const wchar_t*>(value);
    if (count == 0)
        return nullptr;

    const WORD codePage = HIWORD(TranslationAt(translations, 0));
    for (UINT i = 0; i < count; ++i) {
        std::wstring subBlock = L"\\StringFileInfo\\";
        AppendHex4(subBlock, LOWORD(TranslationAt(translations, i)));
        AppendHex4(subBlock, codePage);
        subBlock += L'\\';
        subBlock += wide;
        if (VerQueryValueW(block, subBlock.c_str(), &value, &length) && value)
            return static_cast<const wchar_t*>(value);
    }
    return nullptr;
}

// Copies share a block through one count.
void AddRef(std::atomic<LONG>* count) noexcept {
    if (count)
        count->fetch_add(1, std::memory_order_relaxed);
}

void ReleaseBlock(BYTE*& block, std::atomic<LONG>*& count) noexcept {
    if (count && count->fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete[] block;
        delete count;
    }
    block = nullptr;
    count = nullptr;
}

} // namespace

namespace qv {

version_info::version_info() noexcept : VS_FIXEDFILEINFO{} {}

version_info::version_info(const std::wstring& file) : version_info() {
    Load(file);
}

version_info::version_info(const version_info& other)
    : VS_FIXEDFILEINFO(other), m_translations(other.m_translations), m_pBlock(other.m_pBlock),
      m_pRefCount(other.m_pRefCount) {
    AddRef(m_pRefCount);
}

version_info& version_info::operator=(const version_info& other) {
    if (this == &other)
        return *this;
    std::vector<DWORD> translations = other.m_translations;
    AddRef(other.m_pRefCount);
    Release();
    static_cast<VS_FIXEDFILEINFO&>(*this) = other;
    m_translations = std::move(translations);
    m_pBlock = other.m_pBlock;
    m_pRefCount = other.m_pRefCount;
    return *this;
}

version_info::~version_info() {
    Release();
}

void version_info::Release() noexcept {
    ReleaseBlock(m_pBlock, m_pRefCount);
    m_translations.clear();
}

bool version_info::Load(const std::wstring& file) {
    loaded_version loaded;
    return Take(LoadVersion(file, loaded), loaded);
}

bool version_info::LoadResource(const void* resource, size_t length) {
    loaded_version loaded;
    return Take(LoadVersionResource(resource, length, loaded), loaded);
}

bool version_info::Take(bool read, loaded_version& loaded) {
    Release();
    static_cast<VS_FIXEDFILEINFO&>(*this) = VS_FIXEDFILEINFO{};
    if (!read)
        return false;
    std::vector<DWORD> translations;
    translations.reserve(loaded.translationCount);
    for (UINT i = 0; i < loaded.translationCount; ++i)
        translations.push_back(TranslationAt(loaded.translations, i));
    static_cast<VS_FIXEDFILEINFO&>(*this) = loaded.fixed;
    m_translations = std::move(translations);
    m_pRefCount = new std::atomic<LONG>(1);
    m_pBlock = loaded.block.release();
    return true;
}

const wchar_t* version_info::GetString(const char* name) const {
    return QueryString(m_pBlock, reinterpret_cast<const BYTE*>(m_translations.data()),
                       static_cast<UINT>(m_translations.size()), name);
}

std::wstring GetFileVersionText(const std::wstring& file, const std::wstring& separator) {
    version_info info;
    if (!info.Load(file))
        return {};
    return std::to_wstring(HIWORD(info.dwFileVersionMS)) + separator + std::to_wstring(LOWORD(info.dwFileVersionMS)) +
           separator + std::to_wstring(HIWORD(info.dwFileVersionLS)) + separator +
           std::to_wstring(LOWORD(info.dwFileVersionLS));
}

std::wstring GetInternalVersion(const std::wstring& file) {
    version_info info;
    if (!info.Load(file))
        return {};
    const wchar_t* text = info.GetString("QVInternalVersion");
    return text ? std::wstring(text) : std::wstring();
}

bool IsOleSelfRegister(const std::wstring& file) {
    version_info info;
    return info.Load(file) && info.GetString("OLESelfRegister") != nullptr;
}

} // namespace qv
