// The strong-name token of a public key, as the platform defines it: the last eight bytes of the key
// blob's SHA-1, in reverse order. QvAppServices.dll exports it as StrongNameTokenFromPublicKey, so that
// the library can name itself as the strong-name provider.
#pragma once

#include <windows.h>

#include <array>
#include <cstdint>
#include <span>

namespace appservices {

using strong_name_token = std::array<std::uint8_t, 8>;

// The public-key blob as an assembly stores it: signature algorithm, hash algorithm, key length
// (each 32-bit little-endian) and the key. True when the length field matches the bytes that follow.
bool IsPublicKeyBlob(std::span<const std::uint8_t> blob);

// The token of a blob, by the platform's SHA-1 (BCrypt). Throws com_exception when hashing fails.
strong_name_token TokenFromPublicKey(std::span<const std::uint8_t> blob);

} // namespace appservices

// The exports. The token buffer comes from CoTaskMemAlloc: free it with StrongNameFreeBuffer or
// CoTaskMemFree (the latter still works after this library is unloaded). On FALSE the reason is the
// calling thread's StrongNameErrorInfo: E_POINTER for a null argument, 0x8013141E for a malformed blob.
extern "C" BOOLEAN __stdcall StrongNameTokenFromPublicKey(BYTE* pbPublicKeyBlob, ULONG cbPublicKeyBlob,
                                                          BYTE** ppbStrongNameToken, ULONG* pcbStrongNameToken);
extern "C" VOID __stdcall StrongNameFreeBuffer(BYTE* pbMemory);
extern "C" HRESULT __stdcall StrongNameErrorInfo();
