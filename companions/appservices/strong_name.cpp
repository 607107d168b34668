#include "strong_name.h"

#include "inc/com_boundary.h"
#include "inc/com_exception.h"
#include "inc/unique_handles.h"

#include <bcrypt.h>
#include <objbase.h>

#include <algorithm>

namespace appservices {

namespace {

// The platform's code for a public key that is no key blob.
constexpr HRESULT kInvalidPublicKey = static_cast<HRESULT>(0x8013141E);
constexpr size_t kBlobHeader = 12; // three 32-bit fields before the key

thread_local HRESULT t_lastError = S_OK;

struct algorithm_traits {
    using type = BCRYPT_ALG_HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { BCryptCloseAlgorithmProvider(h, 0); }
};
struct hash_traits {
    using type = BCRYPT_HASH_HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type h) noexcept { BCryptDestroyHash(h); }
};
using unique_algorithm = qv::unique_resource<algorithm_traits>;
using unique_hash = qv::unique_resource<hash_traits>;

void check_status(NTSTATUS status) {
    if (!BCRYPT_SUCCESS(status))
        throw com_exception(HRESULT_FROM_NT(status));
}

std::uint32_t LoadLE32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

} // namespace

bool IsPublicKeyBlob(std::span<const std::uint8_t> blob) {
    if (blob.size() < kBlobHeader)
        return false;
    return LoadLE32(blob.data() + 8) == blob.size() - kBlobHeader;
}

strong_name_token TokenFromPublicKey(std::span<const std::uint8_t> blob) {
    // Opening the provider costs more than hashing a key: it is opened once for the library's life (a
    // provider handle may be shared by threads), and opened again only after a failed open.
    static unique_algorithm algorithm;
    if (!algorithm)
        check_status(BCryptOpenAlgorithmProvider(algorithm.put(), BCRYPT_SHA1_ALGORITHM, nullptr, 0));
    unique_hash hash;
    check_status(BCryptCreateHash(algorithm.get(), hash.put(), nullptr, 0, nullptr, 0, 0));
    // BCryptHashData takes a ULONG length; a key blob is far smaller, but feed it in pieces all the same.
    for (size_t done = 0; done < blob.size();) {
        const ULONG piece = static_cast<ULONG>(std::min<size_t>(blob.size() - done, 0x10000000));
        check_status(BCryptHashData(hash.get(), const_cast<PUCHAR>(blob.data() + done), piece, 0));
        done += piece;
    }
    std::array<std::uint8_t, 20> digest{};
    check_status(BCryptFinishHash(hash.get(), digest.data(), static_cast<ULONG>(digest.size()), 0));
    strong_name_token token{};
    std::reverse_copy(digest.end() - token.size(), digest.end(), token.begin());
    return token;
}

} // namespace appservices

extern "C" BOOLEAN __stdcall StrongNameTokenFromPublicKey(BYTE* pbPublicKeyBlob, ULONG cbPublicKeyBlob,
                                                          BYTE** ppbStrongNameToken, ULONG* pcbStrongNameToken) {
    if (ppbStrongNameToken)
        *ppbStrongNameToken = nullptr;
    if (pcbStrongNameToken)
        *pcbStrongNameToken = 0;
    if (!pbPublicKeyBlob || !ppbStrongNameToken || !pcbStrongNameToken) {
        appservices::t_lastError = E_POINTER;
        return FALSE;
    }
    const std::span<const std::uint8_t> blob(pbPublicKeyBlob, cbPublicKeyBlob);
    if (!appservices::IsPublicKeyBlob(blob)) {
        appservices::t_lastError = appservices::kInvalidPublicKey;
        return FALSE;
    }
    HRESULT hr = qv::com_boundary([&] {
        const appservices::strong_name_token token = appservices::TokenFromPublicKey(blob);
        auto* buffer = static_cast<BYTE*>(CoTaskMemAlloc(token.size()));
        if (!buffer)
            return E_OUTOFMEMORY;
        std::copy(token.begin(), token.end(), buffer);
        *ppbStrongNameToken = buffer;
        *pcbStrongNameToken = static_cast<ULONG>(token.size());
        return S_OK;
    });
    appservices::t_lastError = hr;
    return SUCCEEDED(hr);
}

extern "C" VOID __stdcall StrongNameFreeBuffer(BYTE* pbMemory) {
    CoTaskMemFree(pbMemory);
}

extern "C" HRESULT __stdcall StrongNameErrorInfo() {
    return appservices::t_lastError;
}
